#pragma once

#include <string>
#include <vector>

#include "security/pinned_keys.h"

namespace Vx::Hosting::Tool {

enum class Verdict {
  Good,   // correct
  Hint,   // runs, but perhaps not as intended
  Never,  // never runs on this machine
};

struct Finding {
  Verdict verdict = Verdict::Good;
  std::wstring key;     // the member's path, "commandParams.path"; may be empty
  std::wstring found;   // shortened JSON; empty if nothing was found
  std::wstring wanted;  // what to write instead; empty if good
  std::wstring text;
};

// Findings in the order of the request. Each fault is listed once, at its cause.
struct SubscriptionCheck {
  std::vector<Finding> findings;
  bool Runs() const;
};

// Checks a subscription's text on the current machine, with `keys` as the pinned keys. Opens the
// program for reading and changes nothing. Blocks for as long as the trust check takes.
SubscriptionCheck CheckSubscription(const std::wstring& text, Tessel::Security::KeySet keys);

}  // namespace Vx::Hosting::Tool
