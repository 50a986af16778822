#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "events/firing_marks.h"
#include "events/package_event.h"
#include "platform/packages.h"
#include "platform/unique_handle.h"
#include "records/record.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Handlers to call after a command has run. Thread-safe.
class CompletionEvent {
 public:
  std::int64_t Add(CompletionHandler handler);

  // Calls every handler added before this call, without holding a lock.
  void Raise(const std::wstring& text) const;

 private:
  mutable std::mutex mutex;
  std::int64_t lastToken = 0;
  std::vector<std::pair<std::int64_t, CompletionHandler>> handlers;
};

// The state shared by the watcher thread and the catalog notifications of one package event. Each
// holds a reference, because a notification in progress may outlive the event object.
class UninstallWatch {
 public:
  UninstallWatch(std::wstring packageFamilyName, PackageCatalogEvent catalogEvent,
                 std::shared_ptr<EventCommand> packageCommand,
                 std::shared_ptr<CompletionEvent> completionEvent,
                 std::shared_ptr<FiringMark> firingMark, std::wstring subscriptionHash);

  // The body of the watcher thread: keeps a handler registered with `catalog` until Stop is called.
  // Returns at once if `catalog` is null.
  static void Run(const std::shared_ptr<UninstallWatch>& watch,
                  const std::shared_ptr<Platform::PackageCatalog>& catalog) noexcept;

  // Waits until the watcher has added its handler. Returns false if it exits without adding one.
  // The watcher must have been started.
  bool AwaitHandler();

  // Stops the watcher. Later notifications have no effect. One that is waiting for another, or for
  // an uninstall, still finishes, because a log-off does not say whose session ended.
  void Stop() noexcept;

  // Handles one notification, on a system thread.
  void OnUninstalling(const Platform::PackageUninstall& uninstall) noexcept;

 private:
  // Creates `delivery` if the notification is about this event's package.
  void Handle(const Platform::PackageUninstall& uninstall,
              std::optional<Records::Delivery>& delivery);

  // Logs a notification and returns whether the command should run. For Uninstalled, waits until
  // the uninstall is complete and checks that the package is gone. Marks the run as started, so
  // that no other notification starts one.
  bool IsDue(const Platform::PackageUninstall& uninstall, const std::wstring& received,
             std::optional<Records::Delivery>& delivery) const;
  void Pause();

  enum class Handler : std::uint8_t { Awaited, Added, Refused };
  void Report(Handler outcome);

  const std::wstring familyName;
  const PackageCatalogEvent event;
  const std::shared_ptr<EventCommand> command;
  const std::shared_ptr<CompletionEvent> completion;
  // Signaled when `stopping` is set, so that a log-off does not wait for the next poll. Null if
  // Windows could not create it.
  const Platform::UniqueHandle stopEvent;
  std::atomic<bool> stopping{false};
  std::mutex handlerMutex;  // guards `handler`; no other lock is taken while it is held
  std::condition_variable handlerKnown;
  Handler handler = Handler::Awaited;
  const std::shared_ptr<FiringMark> mark;
  const std::wstring subscription;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
