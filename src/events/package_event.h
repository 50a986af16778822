#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "events/event_commands.h"
#include "events/subscription_forms.h"
#include "platform/packages.h"
#include "platform/thread.h"

namespace Vx::Tessel::Server::Services::Orvane {

// HRESULTs that clients receive for package subscriptions.
inline constexpr std::int32_t kPackageNotInstalled = 0x20000004;
inline constexpr std::int32_t kConsoleUserUnavailable = 0x20000005;
inline constexpr std::int32_t kUnknownCatalogEvent = 0x20000006;

class CompletionEvent;
class FiringMark;
class UninstallWatch;

// A package event and the command that it runs once.
class IPCEvent {
 public:
  explicit IPCEvent(EventCommandPtr packageCommand);
  IPCEvent(const IPCEvent&) = delete;
  IPCEvent& operator=(const IPCEvent&) = delete;

  // Starts watching for the event. A second call has no effect. Throws std::system_error if no
  // thread can be created. This is the first virtual slot. The destructor's slots follow.
  virtual void Register() = 0;

  virtual ~IPCEvent() = default;

  EventCommand* Command() const noexcept { return command.get(); }

  // Adds a handler to call once the command has run, and returns its token. Thread-safe.
  std::int64_t EventComplete(CompletionHandler handler);

 protected:
  // Shared with a notification in progress, which may outlive this object.
  EventCommandPtr command;
  std::shared_ptr<CompletionEvent> completion;
};

// Runs a command when a package of a family is uninstalled: as soon as the uninstall starts, or
// once it has completed and no package of the family is left.
//
// Any thread may create, register and destroy it. The destructor stops and joins the watcher, which
// normally removes its handler from the catalog within milliseconds. It does not wait for a
// notification in progress, which finishes using only shared state.
class PackageUninstallingPCEvent final : public IPCEvent {
 public:
  // Opens the console user's catalog. Throws Platform::WindowsRuntimeError with
  // kPackageNotInstalled, kConsoleUserUnavailable or a code from the package manager. If the
  // session API set is missing, logs that and opens no catalog; the event then never occurs. `mark`
  // belongs to the stored request. If it is null, the event creates its own. `subscription` is the
  // hash of that request, for records.
  PackageUninstallingPCEvent(const std::wstring& packageFamilyName, PackageCatalogEvent event,
                             EventCommandPtr packageCommand,
                             const std::shared_ptr<FiringMark>& mark = nullptr,
                             const std::wstring& subscription = {});
  ~PackageUninstallingPCEvent() override;

  void Register() override;

  // Returns the SID of the user whose catalog is watched. Empty if that user is this process's own
  // account or no catalog was opened. std::nullopt if Windows does not return the SID.
  const std::optional<std::wstring>& User() const noexcept { return user; }

  // Returns a function that waits until the watcher has added its handler, and returns false if the
  // watcher exits without adding one. Call it after Register. It may outlive this object.
  std::function<bool()> HandlerWait() const;

  // Lock order: a mark's turn before uninstall_event_mux and commandTurn, and uninstall_event_mux
  // before rLock. A notification acquires neither of the register mutexes, so a caller that holds
  // one may destroy an event during a notification.
  static inline std::mutex rLock;                // guards package queries and opening catalogs
  static inline std::mutex register_mux;         // guards starting watcher threads
  static inline std::mutex uninstall_event_mux;  // serializes decisions about notifications
  static inline std::mutex commandTurn;          // serializes the commands that notifications run

 private:
  bool IsProcessRunningAsSystem() const;
  std::shared_ptr<Platform::PackageCatalog> OpenConsoleUserCatalog();

  std::optional<std::wstring> user = std::wstring();
  std::shared_ptr<Platform::PackageCatalog> catalog;
  std::shared_ptr<UninstallWatch> watch;
  std::vector<Platform::Thread> watchers;
};

// A client's request to run a command when a packaged app is uninstalled. The constructor opens the
// package catalog: see PackageUninstallingPCEvent for what that requires.
class SubscribeForAppPackageEventRequest {
 public:
  // `mark` belongs to the stored request. If it is null, the request creates its own. Throws
  // Platform::WindowsRuntimeError with kUnknownCatalogEvent or a code from the JSON layer,
  // CreateEventCommand or PackageUninstallingPCEvent.
  explicit SubscribeForAppPackageEventRequest(const std::wstring& request,
                                              const std::shared_ptr<FiringMark>& mark = nullptr);
  SubscribeForAppPackageEventRequest(SubscribeForAppPackageEventRequest&&) noexcept = default;

  PackageCatalogEvent CatalogEvent() const noexcept { return catalogEvent; }
  EventAction CatalogAction() const noexcept { return catalogAction; }
  std::wstring PackageFamilyName() const { return packageFamilyName; }
  PackageUninstallingPCEvent* PackageEvent() const noexcept { return packageEvent.get(); }

  // Adds the handler unless it is empty, and starts watching. Throws as IPCEvent::Register does.
  void RegisterPackageEvent(const CompletionHandler& completed);

  // Returns the command of a stored request, or null if the text is not a request of this kind or
  // its command cannot run late. Throws only std::bad_alloc.
  static std::shared_ptr<PackageEventCommand> ParseEventCommand(const std::wstring& request);

 private:
  PackageCatalogEvent catalogEvent{};
  EventAction catalogAction{};
  std::wstring packageFamilyName;
  std::unique_ptr<PackageUninstallingPCEvent> packageEvent;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
