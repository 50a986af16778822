#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "events/firing_marks.h"
#include "platform/unique_handle.h"
#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The stored list of package subscriptions, and the completion (removal) of those whose command has
// run. If completing a request fails, it stays stored until a later attempt succeeds. Until then,
// its mark prevents this process from running the command again.
class PackageCompletion {
 public:
  PackageCompletion() = delete;

  static RequestManager StoredRequests();

  // Returns whether the service has ended (`stop` is signaled) or `stop` cannot be waited for.
  static bool HasEnded(const Platform::SharedHandle& stop);

  // Removes a request whose command has run, unless it has already been removed. Returns whether
  // the request is no longer stored. Logs exceptions. Acquires listChange.
  static bool Remove(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark) noexcept;

  // Like Remove, but logs a request that stays stored. The next replay, notification or equal
  // subscription then completes it.
  static void CompleteNow(const std::wstring& stored,
                          const std::shared_ptr<FiringMark>& mark) noexcept;

  // Like CompleteNow, but tries up to three times, one second apart, and holds no lock in between.
  // Gives up once `stop` (may be null) is signaled. Do not call on a thread that a host waits for.
  static void Complete(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark,
                       const Platform::SharedHandle& stop) noexcept;

  // Completes the stored request that PersistRequest treats as equal to `request`, if it has run.
  // Returns whether it did. Call with listChange held. Throws std::runtime_error on failure.
  static bool CompleteEqual(const std::wstring& request);

  // Held while a request, its mark and its registration are added or removed together, so that no
  // thread removes a request for which another client has received success. Acquired before
  // register_event_mux, the store's mutex and the lock of the marks.
  static std::mutex listChange;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
