#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "events/package_event_request.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The live package subscriptions of this process. Any thread.
class PackageCatalogEventManager {
 public:
  PackageCatalogEventManager() = delete;

  // Makes the subscription live. `completed` is told when its command has run, on the system's
  // catalog thread, and must not call back into this class. The last argument is ignored. Throws
  // Platform::WindowsRuntimeError as SubscribeForAppPackageEventRequest, std::system_error when the
  // watcher cannot be started.
  static void register_event(const std::wstring& request, const CompletionHandler& completed,
                             const void* argument = nullptr);

  // Runs the command of a request whose package went while nobody watched, if it is one that may
  // run late.
  static void execute_command(const std::wstring& request);

  // Ends every live subscription and joins its watcher; at log-off and when the service ends.
  static void clear_events();

  static std::mutex register_event_mux;  // guards `requests`

 private:
  // Never destroyed: the host may unload the module with subscriptions alive.
  static std::vector<std::unique_ptr<SubscribeForAppPackageEventRequest>>& requests();
};

// Command 7 without its error handling: stores the request, then makes it live, so that a request
// whose registration fails stays stored. Throws as PersistRequest and register_event.
void RegisterAppPackageEvent(const std::wstring& request);

// Takes a stored request off the list again.
void RemoveAppPackageEvent(const std::wstring& request);

// Marks a fired subscription as finished; false when the store failed.
bool CompleteAppPackageEvent(const std::wstring& request);

// Makes every stored subscription live again; one whose package is gone has its command run now, if
// it may run late, and is completed. The service operation of the same name.
void RegisterExistingPackageCatalogManagerRequests();

}  // namespace Vx::Tessel::Server::Services::Orvane
