#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "events/event_commands.h"
#include "platform/packages.h"
#include "platform/thread.h"

namespace Vx::Tessel::Server::Services::Orvane {

// HRESULTs of package subscriptions, as clients see them.
inline constexpr std::int32_t kPackageNotInstalled = 0x20000004;
inline constexpr std::int32_t kConsoleUserUnavailable = 0x20000005;
inline constexpr std::int32_t kUnknownCatalogEvent = 0x20000006;

class CompletionEvent;
class UninstallWatch;

// Told that a package command has run; the text is empty. Runs on the system's catalog thread.
using CompletionHandler = std::function<void(const std::wstring&)>;

// Something that happens to a package, and the command that it runs once.
class IPCEvent {
 public:
  explicit IPCEvent(EventCommandPtr packageCommand);
  IPCEvent(const IPCEvent&) = delete;
  IPCEvent& operator=(const IPCEvent&) = delete;

  // Begins to watch; a second call changes nothing. Throws std::system_error when no thread can be
  // started. The first slot; the destructor's follow it.
  virtual void Register() = 0;

  virtual ~IPCEvent();

  EventCommand* Command() const noexcept { return command.get(); }

  // Adds a handler for the moment the command has run; answers its token. Any thread.
  std::int64_t EventComplete(CompletionHandler handler);

 protected:
  // Shared with a notification that is being handled: it may outlast this object.
  std::shared_ptr<EventCommand> command;
  std::shared_ptr<CompletionEvent> completion;
};

enum class UninstallMoment { Starts, Completed };

// Runs a command when a package of a family is uninstalled: as soon as that starts, or once it has
// completed and no package of the family is left.
//
// Any thread makes, registers and destroys it. The destructor stops and joins the watcher, which
// takes the handler off the catalog, in milliseconds; it does not wait for a notification that is
// being handled. Such a one shares what it uses, so nothing of this object is touched afterwards.
class PackageUninstallingPCEvent final : public IPCEvent {
 public:
  // Opens the console user's catalog. Throws Platform::WindowsRuntimeError: kPackageNotInstalled,
  // kConsoleUserUnavailable or the package manager's own. Without the session API set there is no
  // catalog, which is logged, and the event never comes.
  PackageUninstallingPCEvent(const std::wstring& packageFamilyName, UninstallMoment moment,
                             EventCommandPtr packageCommand);
  ~PackageUninstallingPCEvent() override;

  void Register() override;

  // Lock order: uninstall_event_mux before rLock. A notification takes neither register mutex, so a
  // caller that holds one may destroy an event while a notification is handled.
  static std::mutex rLock;                // package queries and catalog opening
  static std::mutex register_mux;         // making watcher threads
  static std::mutex uninstall_event_mux;  // handling notifications

 private:
  bool IsProcessRunningAsSystem() const;
  std::shared_ptr<Platform::PackageCatalog> OpenConsoleUserCatalog() const;

  std::shared_ptr<Platform::PackageCatalog> catalog;
  std::shared_ptr<UninstallWatch> watch;
  std::vector<Platform::Thread> watchers;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
