#pragma once

#include <string>
#include <vector>

#include "events/subscription_forms.h"
#include "security/pinned_keys.h"

namespace Vx::Host {

using Tessel::Server::Services::Orvane::kSubscriptionForms;
using Tessel::Server::Services::Orvane::SubscriptionForm;

enum class Verdict {
  Good,   // as it has to be
  Hint,   // runs, but perhaps not as it was meant
  Never,  // never runs on this machine
};

// One fact about a subscription.
struct Finding {
  Verdict verdict = Verdict::Good;
  std::wstring key;     // the member, with those above it: "commandParams.path"; may be empty
  std::wstring found;   // JSON, shortened; empty where nothing was found
  std::wstring wanted;  // the repair; empty for good ones
  std::wstring text;
};

// The facts in the order of the request. A fault is listed where it is caused, and what follows
// from it is not listed.
struct SubscriptionCheck {
  std::vector<Finding> findings;
  bool Runs() const;
};

// Judges the text of a subscription on the current machine, with `keys` as the pinned ones. Opens
// the program for reading and changes nothing. Blocks for as long as the trust check.
SubscriptionCheck CheckSubscription(const std::wstring& text, Tessel::Security::KeySet keys);

}  // namespace Vx::Host
