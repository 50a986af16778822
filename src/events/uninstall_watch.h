#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "events/package_event.h"
#include "platform/packages.h"
#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Handlers that are told once something is over. Any thread.
class CompletionEvent {
 public:
  std::int64_t Add(CompletionHandler handler);

  // Calls every handler that was there at the time of the call, without a lock.
  void Raise(const std::wstring& text) const;

 private:
  mutable std::mutex mutex;
  std::int64_t lastToken = 0;
  std::vector<std::pair<std::int64_t, CompletionHandler>> handlers;
};

// What the watcher thread and the catalog's notifications of one package event share. Each of them
// holds a reference: a notification that the system had already begun may come to an end after the
// event itself is gone.
class UninstallWatch {
 public:
  UninstallWatch(std::wstring packageFamilyName, UninstallMoment uninstallMoment,
                 std::shared_ptr<EventCommand> packageCommand,
                 std::shared_ptr<CompletionEvent> completionEvent);

  // Body of the watcher thread: keeps a handler on `catalog` until Stop; at once over when there is
  // no catalog.
  static void Run(const std::shared_ptr<UninstallWatch>& watch,
                  const std::shared_ptr<Platform::PackageCatalog>& catalog) noexcept;

  // Ends the watcher and any pause of a notification now; later notifications do nothing.
  void Stop() noexcept;

  // One notification, on a thread of the system's.
  void OnUninstalling(const Platform::PackageUninstall& uninstall) noexcept;

 private:
  void Handle(const Platform::PackageUninstall& uninstall);
  void AwaitCompletion(const Platform::PackageUninstall& uninstall);
  void RunCommand();
  void Pause(std::chrono::milliseconds length);

  const std::wstring familyName;
  const UninstallMoment moment;
  const std::shared_ptr<EventCommand> command;
  const std::shared_ptr<CompletionEvent> completion;
  // Signalled together with `stopping`, so that log-off need not wait out a step; null when the
  // system had none to give.
  const Platform::UniqueHandle stopEvent;
  std::atomic<bool> stopping{false};
  bool handled = false;  // guarded by PackageUninstallingPCEvent::uninstall_event_mux
};

}  // namespace Vx::Tessel::Server::Services::Orvane
