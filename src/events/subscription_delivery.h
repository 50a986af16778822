#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "events/event_commands.h"
#include "events/subscription_forms.h"
#include "platform/unique_handle.h"
#include "records/record.h"

namespace Vx::Tessel::Server::Services::Orvane {

// One stored subscription, parsed from a client's text: which event triggers which command. The
// base of the power and Zephra requests, which differ only in their member names.
class EventSubscription {
 public:
  // Throws Platform::WindowsRuntimeError with a code from the JSON layer or CreateEventCommand if
  // the text is not a request of this kind.
  EventSubscription(const std::wstring& request, const SubscriptionForm& form);
  EventSubscription(EventSubscription&&) noexcept = default;
  EventSubscription& operator=(EventSubscription&&) noexcept = default;

  EventCommand* Command() const noexcept { return command.get(); }

  // The derived classes also expose these two under their own names.
  std::uint32_t Type() const noexcept { return eventType; }
  EventAction Action() const noexcept { return action; }

  // Returns the package family that the subscription watches, or an empty string for other kinds.
  const std::wstring& Family() const noexcept { return family; }

 private:
  std::uint32_t eventType = 0;
  EventAction action{};
  EventCommandPtr command;
  std::wstring family;
};

// Sets a record's subscription hash and, if the request can be read, its target and package. Throws
// as EventSubscription does, and std::bad_alloc.
void NameSubscription(Records::Record& record, const std::wstring& request,
                      const SubscriptionForm& form);

// How log lines refer to one kind of subscription.
struct DeliveryNames {
  const char* handler;
  const char* failing;        // the handler, in lines about a failure
  const wchar_t* delayStart;  // the line for the start of a delay, in seconds
  const char* subscribe;      // the functions that change the list
  const char* unsubscribe;
};

// Receives a stored request, a completion handler that may be empty, the event's code, and the
// kernel event that ends a wait early, or null.
using DeliveryHandler = void (*)(const std::wstring& request,
                                 const std::function<void(const std::wstring&)>& completed,
                                 std::uint32_t eventType, const Platform::SharedHandle& stop);

// How the kinds of subscription differ. Each kind is a constant, so that it outlives every worker.
struct DeliveryKind {
  Records::Kind kind;
  DeliveryNames names;
  const SubscriptionForm& form;
  DeliveryHandler handleEvent;
  std::mutex* handleEventMutex;
};

// Adds a request to the stored list of its kind without checking its members: a bad request fails
// at delivery. Logs failures. Returns Stored, Refused or Failed.
Records::Outcome RegisterSubscription(const DeliveryKind& kind,
                                      const std::wstring& request) noexcept;

// Removes the request with exactly this text. Logs failures. Returns Removed, Refused or Failed.
Records::Outcome UnregisterSubscription(const DeliveryKind& kind,
                                        const std::wstring& request) noexcept;

// Delivers an event to every stored request of the kind: see StartDelivery. If a worker cannot be
// started, continues with the next request. Throws only std::bad_alloc.
void FulfillSubscriptions(const DeliveryKind& kind, std::uint32_t eventType,
                          const Platform::SharedHandle& stop = nullptr);

// How many deliveries of one stored request may wait for their delay or turn at a time, and how
// many may exist in the process, from the start of a worker to its end. Any further delivery is
// dropped, so that neither long delays nor many subscriptions fill the process with threads.
inline constexpr int kMostWaiting = 64;
inline constexpr int kMostDeliveries = 1024;

// How many characters the long requests of the process's deliveries may have together, because each
// delivery keeps its parsed request, at up to 20 bytes per character. A further delivery of a long
// request is dropped. Short requests are not limited, so that long ones cannot crowd them out.
inline constexpr std::size_t kMostLongText = std::size_t{8} * 1024 * 1024;
inline constexpr std::size_t kShortRequest = 4096;

// Starts delivering one event to one stored request. Parses the request on the calling thread.
// Starts no worker if the request is for another event or is unreadable, which is logged. Otherwise
// starts a detached worker, or logs that the delivery is dropped because there are too many. Throws
// std::system_error if no thread can be created, and std::bad_alloc.
//
// The worker waits out the delay without a lock, then decides and runs the command under the kind's
// mutex. It does not wait for a delay that IsTooLong, and logs a delivery that it drops. If `stop`
// is signaled during the delay, it logs that and ends.
void StartDelivery(const DeliveryKind& kind, const std::wstring& request, std::uint32_t eventType,
                   const Platform::SharedHandle& stop);

}  // namespace Vx::Tessel::Server::Services::Orvane
