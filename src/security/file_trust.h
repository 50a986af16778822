#pragma once

#include <optional>
#include <string>
#include <vector>

#include "records/record.h"
#include "security/authenticode_helper.h"
#include "security/pinned_keys.h"
#include "security/signature_record.h"

namespace Vx::Tessel::Security {

// A trust decision with its reasons. The facade returns only its verdict. vxhost shows the rest to
// an operator, so that the explanation always matches the verdict.
struct FileTrust {
  bool trusted = false;
  bool pinsConfigured = false;  // the key set is not empty
  bool trustedByWindows = false;
  bool keyPinned = false;
  std::vector<SignatureRecord> signatures;
  std::optional<PathVerdict> place;  // empty if it was not checked
};

// Like IsFileTrusted, but checks against `keys`. An empty path is not trusted. Logs as the facade
// does. Throws only standard exceptions.
FileTrust VerifyFile(const std::wstring& path, KeySet keys);

// Like IsDropboxFileTrusted: checks the signer's name instead of keys.
FileTrust VerifyDropboxFile(const std::wstring& path);

// Returns why a file is not trusted, or None if it is.
Server::Records::Reason ReasonOf(const FileTrust& trust);

// One step of a decision, for display.
struct TrustStep {
  bool passed = false;
  std::wstring text;
};

// Returns the steps of `trust` in order. The last states the verdict, or that no keys are pinned.
std::vector<TrustStep> Explain(const FileTrust& trust, KeySet keys);

// Returns the public keys of all signatures in a file that Windows can read, without duplicates, in
// the form in which keys are pinned. Does not judge whether they should be pinned.
std::vector<std::string> PublicKeysOf(const std::wstring& path);

}  // namespace Vx::Tessel::Security
