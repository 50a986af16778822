#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "events/firing_marks.h"
#include "platform/unique_handle.h"
#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The stored list of package subscriptions, and the completion of those whose command has run. A
// completion that fails leaves its request stored until a later one succeeds. Until then the mark
// keeps the command from running again in this process.
class PackageCompletion {
 public:
  PackageCompletion() = delete;

  static RequestManager StoredRequests();

  // Whether the service that owns the event `stop` has ended, or its event cannot be waited for.
  static bool HasEnded(const Platform::SharedHandle& stop);

  // Removes a request whose command has run, unless that happened already. Returns whether it is
  // gone. Logs what throws. Takes listChange.
  static bool Remove(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark) noexcept;

  // Does the same, and logs a request that stays. The next replay, notification or equal
  // subscription then completes it.
  static void CompleteNow(const std::wstring& stored,
                          const std::shared_ptr<FiringMark>& mark) noexcept;

  // Does the same up to three times, a second apart, without a lock in between. Gives up when its
  // service ends, whose event is `stop`, or null. Not for a thread that a host waits for.
  static void Complete(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark,
                       const Platform::SharedHandle& stop) noexcept;

  // If the command of a stored request that PersistRequest would take for `request` has run,
  // completes that one. Returns whether it did. The caller holds listChange. Throws
  // std::runtime_error if the completion fails.
  static bool CompleteEqual(const std::wstring& request);

  // Held while a request, its mark and its registration come or go together, so that what one
  // thread takes back or finds gone is never the request that another client was acknowledged for.
  // Taken before register_event_mux, the store's mutex and that of the marks.
  static std::mutex listChange;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
