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

  // Notes a service of this process, which lives until `stop` is signalled. The caller holds
  // listChange.
  static void AddService(const Platform::SharedHandle& stop);

  // Whether the service that owns the event `stop` has ended, or its event cannot be waited for.
  static bool HasEnded(const Platform::SharedHandle& stop);

  // Removes a request whose command has run, unless that happened already. If it fails, starts a
  // worker that tries again after 1, 2, 4 ... 256 seconds, until no service is left. It does so for
  // every such request of the process, and there is one worker at most: for a request that fails
  // later, it begins anew after the pause that it is in. Without a service, logs what is left.
  // Takes listChange. Throws std::system_error when no thread can be started.
  static void Complete(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark);

  // If the command of a stored request that PersistRequest would take for `request` has run,
  // completes that one. Returns whether it did. The caller holds listChange. Throws
  // std::runtime_error if the completion fails.
  static bool CompleteEqual(const std::wstring& request);

  // Tries once more to complete what could not be completed. Logs what still cannot, unless the
  // worker goes on for another service. Takes listChange.
  static void CompleteAll() noexcept;

  // Does the same on a thread of its own if anything is left. Called when a service has ended,
  // whose host waits for neither listChange nor the store. Throws std::system_error when no thread
  // can be started.
  static void StartCompletingAll();

  // Held while a request, its mark and its registration come or go together, so that what one
  // thread takes back or finds gone is never the request that another client was acknowledged for.
  // Taken before register_event_mux, the store's mutex and that of the marks.
  static std::mutex listChange;

 private:
  static void Retry() noexcept;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
