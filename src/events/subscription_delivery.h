#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "events/event_commands.h"
#include "events/subscription_forms.h"
#include "platform/unique_handle.h"
#include "records/record.h"

namespace Vx::Tessel::Server::Services::Orvane {

// One stored subscription, read from a client's text: which event runs which command. Base of the
// power and the Zephra request, which differ only in the names of their members.
class EventSubscription {
 public:
  // Throws Platform::WindowsRuntimeError when the text is not such a request.
  EventSubscription(const std::wstring& request, const SubscriptionForm& form);
  EventSubscription(EventSubscription&&) noexcept = default;
  EventSubscription& operator=(EventSubscription&&) noexcept = default;

  EventCommand* Command() const noexcept { return command.get(); }

  // The event and the action. The derived classes offer both under names of their own too.
  std::uint32_t Type() const noexcept { return eventType; }
  EventAction Action() const noexcept { return action; }

  // The package that it watches; empty for other kinds.
  const std::wstring& Family() const noexcept { return family; }

 private:
  std::uint32_t eventType = 0;
  EventAction action{};
  EventCommandPtr command;
  std::wstring family;
};

// Names the subscription of a record, and its target and package if the text can be read. Throws as
// EventSubscription does, and std::bad_alloc.
void NameSubscription(Records::Record& record, const std::wstring& request,
                      const SubscriptionForm& form);

// The names of one kind of subscription in log lines.
struct DeliveryNames {
  const char* handler;
  const char* failing;        // the handler in lines about a failure
  const wchar_t* delayStart;  // with the delay
  const char* subscribe;      // the functions that change the list
  const char* unsubscribe;
};

// Takes the text of a stored request, a completion handler that may be empty, the event's code, and
// the event that ends a wait early, or null.
using DeliveryHandler = void (*)(const std::wstring& request,
                                 const std::function<void(const std::wstring&)>& completed,
                                 std::uint32_t eventType, const Platform::SharedHandle& stop);

// All that distinguishes one kind of subscription from the other. A constant, so that it outlives
// every worker.
struct DeliveryKind {
  Records::Kind kind;
  DeliveryNames names;
  const SubscriptionForm& form;
  DeliveryHandler handleEvent;
  std::mutex* handleEventMutex;
};

// Adds a request to the stored list of its kind without reading it: a malformed one fails at
// delivery. Logs failures. Returns Stored, Refused or Failed.
Records::Outcome RegisterSubscription(const DeliveryKind& kind,
                                      const std::wstring& request) noexcept;

// Removes the request with exactly this text from the stored list. Logs failures. Returns Removed,
// Refused or Failed.
Records::Outcome UnregisterSubscription(const DeliveryKind& kind,
                                        const std::wstring& request) noexcept;

// Delivers an event to every stored request of the kind: see StartDelivery. Goes on with the next
// if a worker cannot be started. Throws only std::bad_alloc.
void FulfillSubscriptions(const DeliveryKind& kind, std::uint32_t eventType,
                          const Platform::SharedHandle& stop = nullptr);

// Deliveries of one stored text that wait for their delay or their turn at the same time, and
// deliveries of the process that exist, from the start of their worker to its end. The next one is
// dropped, so that neither long delays nor many subscriptions fill the process with threads.
inline constexpr int kMostWaiting = 64;
inline constexpr int kMostDeliveries = 1024;

// Delivers one event to one stored request, and returns. Parses the request on the calling thread:
// one for another event, and one that cannot be read, which is logged, needs no worker. Otherwise
// starts a detached worker, or logs that the delivery is dropped because too many exist. The worker
// waits out the delay without a lock, then decides and runs the command under the kind's mutex. It
// does not wait for a delay that IsTooLong, and logs a delivery that it drops. If it waits for its
// delay when `stop` is signalled, it logs that and ends. Throws std::system_error when no thread
// can be started, and std::bad_alloc.
void StartDelivery(const DeliveryKind& kind, const std::wstring& request, std::uint32_t eventType,
                   const Platform::SharedHandle& stop);

}  // namespace Vx::Tessel::Server::Services::Orvane
