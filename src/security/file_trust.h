#pragma once

#include <optional>
#include <string>
#include <vector>

#include "security/authenticode_helper.h"
#include "security/pinned_keys.h"
#include "security/signature_record.h"

namespace Vx::Tessel::Security {

// A trust decision with everything that led to it. The facade answers with `trusted` alone, the
// development host shows the rest to an operator, so what is explained is what is decided.
struct FileTrust {
  bool trusted = false;
  bool pinsConfigured = false;  // the key set is not empty
  bool trustedByWindows = false;
  bool keyPinned = false;
  std::vector<SignatureRecord> catalogSignatures;
  std::vector<SignatureRecord> embeddedSignatures;
  std::optional<PathVerdict> place;  // empty when the decision fell before
};

// The decision of IsFileTrusted, against `keys`. An empty path is not trusted. Logs as the facade
// does; throws only what the standard library throws.
FileTrust JudgeFile(const std::wstring& path, KeySet keys);

// The decision of IsDropboxFileTrusted, which goes by the signer's name: no key is looked at.
FileTrust JudgeDropboxFile(const std::wstring& path);

// One step of a decision, for people.
struct TrustStep {
  bool passed = false;
  std::wstring text;
};

// `trust` step by step, in the order of the decision, ending with the verdict or, without
// pinned keys, with their absence.
std::vector<TrustStep> Explain(const FileTrust& trust, KeySet keys);

// The public keys of all signatures of a file that Windows can read, each once, in the form in
// which keys are pinned. Says nothing about whether they should be.
std::vector<std::string> PublicKeysOf(const std::wstring& path);

}  // namespace Vx::Tessel::Security
