#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "events/package_event.h"
#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Services::Orvane {

// This process's live package subscriptions. Thread-safe.
class PackageCatalogEventManager {
 public:
  PackageCatalogEventManager() = delete;

  // The address of the service object that owns a registration, or null for none.
  using Owner = const void*;

  // Makes a subscription live. Once the command has run, calls `completed`, which must not call
  // this class, on the system's catalog thread. Ignores `argument`. `mark` belongs to the stored
  // request. If it is null, the registration creates its own. Throws Platform::WindowsRuntimeError
  // as SubscribeForAppPackageEventRequest does, and std::system_error if the watcher cannot be
  // started.
  static void register_event(const std::wstring& request, const CompletionHandler& completed,
                             const void* argument = nullptr, Owner owner = nullptr,
                             const std::shared_ptr<FiringMark>& mark = nullptr);

  // Waits until the owner's latest registration with `mark` is watching, then removes the owner's
  // earlier registrations of the same request for the same user.
  static void EndReplaced(Owner owner, const std::shared_ptr<FiringMark>& mark);

  // Runs the command of a request whose package was uninstalled while the service was not running,
  // if the command may run late.
  static void execute_command(const std::wstring& request);

  // Ends every live subscription and joins its watcher.
  static void clear_events();

  // Does the same for the subscriptions of one service object, at log-off and when it stops.
  static void clear_events(Owner owner);

  static inline std::mutex register_event_mux;  // guards `requests`

  // Held while a request, its mark and its registration are added or removed together, so that no
  // thread removes a request for which another client has received success. Acquired before
  // register_event_mux, the store's mutex and the lock of the marks.
  static inline std::mutex listChange;

 private:
  struct LiveRequest {
    Owner owner;
    std::shared_ptr<FiringMark> mark;  // null if there is none
    std::unique_ptr<SubscribeForAppPackageEventRequest> request;
    std::uint64_t number = 0;  // in the order of registration
  };

  // Never destroyed, because the host may unload the module while subscriptions are live.
  static std::vector<LiveRequest>& requests();
  static inline std::uint64_t lastNumber = 0;  // guarded by register_event_mux
};

// Thrown when a request was stored but could not be made live. The request stays stored.
class NotWatched : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Returns whether the service has ended (`stop` is signaled) or `stop` cannot be waited for.
bool HasEnded(const Platform::SharedHandle& stop);

// Stores a request, then makes it live. If it cannot be stored, only checks it. No other client can
// add the same subscription in between. Returns whether the request is stored. Throws as
// PersistRequest and register_event do, and std::runtime_error if the same subscription has run but
// cannot be removed. If registering the stored request throws Platform::WindowsRuntimeError,
// removes the request. Any other exception becomes NotWatched. Failed completions are retried only
// until `stop` is signaled.
bool RegisterAppPackageEvent(const std::wstring& request, PackageCatalogEventManager::Owner owner,
                             const Platform::SharedHandle& stop = nullptr);

// Makes every stored subscription live again, replacing this service's earlier registrations for
// the same user. If a package is gone, runs the command now if it may run late, and completes the
// subscription. The command of a request that is already registered runs only once. A request that
// has run but could not be completed is completed now. Registers nothing once `stop` is signaled.
void RegisterExistingPackageCatalogManagerRequests(PackageCatalogEventManager::Owner owner,
                                                   const Platform::SharedHandle& stop = nullptr);

}  // namespace Vx::Tessel::Server::Services::Orvane
