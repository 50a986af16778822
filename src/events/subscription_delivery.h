#pragma once

#include <cstddef>
#include <cstdint>
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

  // The derived classes also expose these under their own names.
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

// Sets a record's subscription hash and, if the request can be read, its target, package and, for
// an uninstall, event. Throws as EventSubscription does, and std::bad_alloc.
void NameSubscription(Records::Record& record, const std::wstring& request,
                      const SubscriptionForm& form);

// Receives a stored request, a completion handler (may be empty), the event's code, and the kernel
// event that ends a wait early (may be null).
using DeliveryHandler = void (*)(const std::wstring& request, const CompletionHandler& completed,
                                 std::uint32_t eventType, const Platform::SharedHandle& stop);

// How the kinds of subscription differ. Each kind is a constant, so that it outlives every worker.
struct DeliveryKind {
  Records::Kind kind;
  const char* handler;        // the name in log lines
  const char* failing;        // the same, in failure messages
  const wchar_t* delayStart;  // the format of the line for the start of a delay; takes seconds
  const char* subscribe;      // the functions that change the list
  const char* unsubscribe;
  const SubscriptionForm& form;
  DeliveryHandler handleEvent;
  std::mutex* handleEventMutex;
};
extern const DeliveryKind kPowerEvents;
extern const DeliveryKind kZephraEvents;

// Adds a request to the stored list of its kind without checking its members: an invalid request
// fails at delivery. Logs failures. Returns Stored, Refused or Failed.
Records::Outcome RegisterSubscription(const DeliveryKind& kind,
                                      const std::wstring& request) noexcept;

// Removes the request with exactly this text. Logs failures. Returns Removed, Refused or Failed.
Records::Outcome UnregisterSubscription(const DeliveryKind& kind,
                                        const std::wstring& request) noexcept;

// Delivers an event to every stored request of the kind: see PowerEventManager. If a worker cannot
// be started, continues with the next request. Throws only std::bad_alloc.
void FulfillSubscriptions(const DeliveryKind& kind, std::uint32_t eventType,
                          const Platform::SharedHandle& stop = nullptr);

// Limits on the deliveries of one stored request that wait for their delay or turn at the same
// time, and on all deliveries in the process that have a worker. Further deliveries are dropped, so
// that neither long delays nor many subscriptions fill the process with threads.
inline constexpr int kMostWaiting = 64;
inline constexpr int kMostDeliveries = 1024;

// Limits the total characters of the long requests that the process's deliveries keep in parsed
// form, at up to 20 bytes per character. Further deliveries of long requests are dropped. Short
// requests are not counted, so that long ones cannot crowd them out.
inline constexpr std::size_t kMostLongText = std::size_t{8} * 1024 * 1024;
inline constexpr std::size_t kShortRequest = 4096;

// A client's request to run a command on a power event.
class SubscribeForPowerEventRequest final : public EventSubscription {
 public:
  explicit SubscribeForPowerEventRequest(const std::wstring& request)
      : EventSubscription(request, kPowerForm) {}

  std::uint32_t PowerEventType() const noexcept { return Type(); }
  EventAction PowerEventAction() const noexcept { return Action(); }
};

// A client's request to run a command on one of the service's own events.
class SubscribeForZephraEventRequest final : public EventSubscription {
 public:
  explicit SubscribeForZephraEventRequest(const std::wstring& request)
      : EventSubscription(request, kZephraForm) {}

  std::uint32_t EventType() const noexcept { return Type(); }
  EventAction ZephraEventAction() const noexcept { return Action(); }
};

// Delivers power events. Thread-safe.
class PowerEventManager {
 public:
  PowerEventManager() = delete;

  // Starts delivering one event to one stored request. Parses the request on the calling thread.
  // Does not start a worker if the request is for another event, or if it is unreadable, which is
  // logged. Otherwise starts a detached worker, or logs that the delivery is dropped because there
  // are too many. Throws std::system_error if no thread can be created, and std::bad_alloc. Never
  // calls the completion handler, because a power subscription stays stored after its event.
  //
  // The worker waits out the delay without holding a lock. Then, under the mutex, it decides
  // whether to run the command and runs it. It skips a delay that IsTooLong, and logs a delivery
  // that it drops. If `stop` is signaled during the delay, it logs that and exits.
  static void handle_event(const std::wstring& request, const CompletionHandler& completed,
                           std::uint32_t eventType, const Platform::SharedHandle& stop = nullptr);

  // Serializes the decisions and commands of all power workers, but not their delays.
  static inline std::mutex handle_event_mutex;
};

// Delivers Zephra events as PowerEventManager delivers power events. Has its own lock, so that a
// power command and a Zephra command can run at the same time.
class ZephraEventManager {
 public:
  ZephraEventManager() = delete;

  static void handle_event(const std::wstring& request, const CompletionHandler& completed,
                           std::uint32_t eventType, const Platform::SharedHandle& stop = nullptr);

  static inline std::mutex handle_event_mutex;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
