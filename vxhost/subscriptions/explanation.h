#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hosting/json_row.h"
#include "hosting/loaded_module.h"
#include "security/pinned_keys.h"
#include "vxhost/store/store.h"

namespace Vx::Hosting::Tool {

// The event to explain.
struct Occasion {
  const SubscriptionForm* kind = nullptr;  // null: each subscription's own event
  std::uint32_t code = 0;                  // for a power or platform event
  std::wstring family;                     // of the uninstalled package
};

enum class Fate {
  Runs,        // immediately or after its delay
  Dropped,     // its delay is impossible
  Refused,     // the program would not be started
  Never,       // the module cannot carry it out
  OtherEvent,  // it is waiting for another event
};

// What an event would do for one subscription on this machine right now.
struct Explanation {
  StoredSubscription subscription;
  std::wstring event;  // the event it waits for, "power 18"; empty if unreadable
  Fate fate = Fate::Never;
  std::wstring delay;                 // as stored, "0" if absent; empty if not applicable
  int wait = 0;                       // the delay in seconds
  std::wstring action;                // "start C:\..."; empty if unreadable
  std::vector<std::wstring> reasons;  // for a fate other than Runs
};

// Returns the fate as text, such as "would wait 5 s and run".
std::string FateText(const Explanation& one);

// Applies the module's own parsers and rules to each subscription, in order, with `keys` as the
// restricted keys. Opens programs only for reading. Blocks for as long as the trust checks take.
std::vector<Explanation> Explain(const std::vector<StoredSubscription>& subscriptions,
                                 const Occasion& occasion, Tessel::Security::KeySet keys);

// Returns the start of a subscription's line: its number and hash.
std::string LabelOf(const StoredSubscription& one);

// Returns the start of a JSON result: the subscription, its event and its fate.
JsonRow RowOf(const Explanation& one);

// Returns whether the command did what was requested: it returned 0, refused nothing, and did not
// store a subscription that will never run.
bool WasDone(const CommandResult& answer);

// Returns the outcome of command `id`, such as "stored" or "nothing removed". Returns an empty
// string if the module answered with an error code or recorded no decision.
std::string VerdictOf(std::uint32_t id, const CommandResult& answer);

}  // namespace Vx::Hosting::Tool
