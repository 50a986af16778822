#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vxhost/common/json_row.h"
#include "vxhost/subscriptions/stored_subscriptions.h"

namespace Vx::Host {

// The event that is asked about.
struct Occasion {
  const SubscriptionForm* kind = nullptr;  // null: for each subscription its own event
  std::uint32_t code = 0;                  // of a power or platform event
  std::wstring family;                     // of the package that is uninstalled
};

enum class Fate {
  Runs,        // at once or after its delay
  Dropped,     // its delay can never be kept
  Refused,     // the program would not be started
  Never,       // the module cannot carry it out
  OtherEvent,  // it waits for another event
};

// What an event would lead to for one subscription, on this machine and now.
struct Explanation {
  StoredSubscription subscription;
  std::wstring event;  // the one that it waits for, "power 18"; empty if that cannot be read
  Fate fate = Fate::Never;
  std::wstring delay;                 // as it is stored, "0" if it is not, or empty
  int wait = 0;                       // seconds before that
  std::wstring action;                // "start C:\...", empty if that cannot be read
  std::vector<std::wstring> reasons;  // for a fate other than Runs
};

// Asks the module's own readers and rules about each subscription in order, with `keys` as its
// restricted ones.
// Opens programs for reading. Starts, stores and sends nothing. Blocks for as long as the trust
// checks.
std::vector<Explanation> Explain(const std::vector<StoredSubscription>& subscriptions,
                                 const Occasion& occasion, Tessel::Security::KeySet keys);

// Returns the beginning of a result in JSON: the members that name the subscription and its event.
JsonRow RowOf(const Explanation& one);

}  // namespace Vx::Host
