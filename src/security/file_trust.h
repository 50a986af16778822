#pragma once

#include <optional>
#include <string>
#include <vector>

#include "records/record.h"
#include "security/authenticode_helper.h"
#include "security/pinned_keys.h"
#include "security/signature_record.h"

namespace Vx::Tessel::Security {

// A trust decision with its reasons. The facade returns only `trusted`, and the development host
// shows the rest to an operator, so the explanation always belongs to the real decision.
struct FileTrust {
  bool trusted = false;
  bool pinsConfigured = false;  // the key set is not empty
  bool trustedByWindows = false;
  bool keyPinned = false;
  std::vector<SignatureRecord> catalogSignatures;
  std::vector<SignatureRecord> embeddedSignatures;
  std::optional<PathVerdict> place;  // empty if the decision was made before
};

// The decision of IsFileTrusted against `keys`. An empty path is not trusted. Logs like the facade.
// Throws only exceptions of the standard library.
FileTrust VerifyFile(const std::wstring& path, KeySet keys);

// The decision of IsDropboxFileTrusted, which depends on the signer's name and not on keys.
FileTrust VerifyDropboxFile(const std::wstring& path);

// Why a file is not trusted; None if it is.
Server::Records::Reason ReasonOf(const FileTrust& trust);

// A step of a decision, for display.
struct TrustStep {
  bool passed = false;
  std::wstring text;
};

// The steps of `trust` in order. The last is the verdict or, without pinned keys, their absence.
std::vector<TrustStep> Explain(const FileTrust& trust, KeySet keys);

// The public keys of all signatures of a file that Windows can read, without duplicates, in the
// form in which keys are pinned. Does not judge whether they should be pinned.
std::vector<std::string> PublicKeysOf(const std::wstring& path);

}  // namespace Vx::Tessel::Security
