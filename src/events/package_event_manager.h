#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "events/package_event_request.h"
#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The live package subscriptions of this process. Any thread.
class PackageCatalogEventManager {
 public:
  PackageCatalogEventManager() = delete;

  // The address that names the service object of a registration; null for none.
  using Owner = const void*;

  // Makes a subscription live. Calls `completed` on the system's catalog thread once the command
  // has run; it must not call back into this class. Ignores `argument`. `mark` belongs to the
  // stored request; without one the registration has its own. Throws Platform::WindowsRuntimeError
  // as SubscribeForAppPackageEventRequest does, and std::system_error when the watcher cannot be
  // started.
  static void register_event(const std::wstring& request, const CompletionHandler& completed,
                             const void* argument = nullptr, Owner owner = nullptr,
                             const std::shared_ptr<FiringMark>& mark = nullptr);

  // Ends the service's earlier registrations of the stored request of `mark` for the user of its
  // last one, once that one watches. Waits for its watcher to begin.
  static void EndReplaced(Owner owner, const std::shared_ptr<FiringMark>& mark);

  // Runs the command of a request whose package was uninstalled while the service was not running,
  // if the command may run late.
  static void execute_command(const std::wstring& request);

  // Ends every live subscription and joins its watcher.
  static void clear_events();

  // The same for those of one service object. Called at log-off and when the service ends.
  static void clear_events(Owner owner);

  static std::mutex register_event_mux;  // guards `requests`

 private:
  struct LiveRequest {
    Owner owner;
    std::shared_ptr<FiringMark> mark;  // null if there is none
    std::unique_ptr<SubscribeForAppPackageEventRequest> request;
    std::uint64_t number = 0;  // in the order of registration
  };

  // Never destroyed, because the host may unload the module while subscriptions are live.
  static std::vector<LiveRequest>& requests();
  static std::uint64_t lastNumber;  // guarded by register_event_mux
};

// A request was stored but could not be made live. It stays stored.
class NotWatched : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Stores a request, then makes it live. Throws as PersistRequest and register_event do, and
// std::runtime_error if the same subscription has run but cannot be removed. Removes the request
// again where its registration throws Platform::WindowsRuntimeError; throws NotWatched for another
// exception. No other client can subscribe the same text in between. `stop` is signalled when
// the service ends, which gives up completions that fail. Returns whether the request is stored.
bool RegisterAppPackageEvent(const std::wstring& request, PackageCatalogEventManager::Owner owner,
                             const Platform::SharedHandle& stop = nullptr);

// Makes every stored subscription live again, in place of this service's earlier registrations for
// the same user. Where the package is gone, runs the command now if it may run late, and completes
// the subscription. A request that was registered before runs once, and one whose command has run
// but which could not be completed is completed now. Registers no further request once `stop` is
// signalled.
void RegisterExistingPackageCatalogManagerRequests(PackageCatalogEventManager::Owner owner,
                                                   const Platform::SharedHandle& stop = nullptr);

}  // namespace Vx::Tessel::Server::Services::Orvane
