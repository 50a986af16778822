#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "events/event_commands.h"
#include "events/package_event.h"

namespace Vx::Tessel::Server::Services::Orvane {

enum class PackageCatalogEvent : std::uint32_t { Uninstalling = 5, Uninstalled = 7 };

// A client's wish to have a command run when a packaged app goes. Making one opens the package
// catalog; see PackageUninstallingPCEvent for what that needs.
class SubscribeForAppPackageEventRequest {
 public:
  // Throws Platform::WindowsRuntimeError: the JSON layer's, or one of package_event.h and
  // event_commands.h.
  explicit SubscribeForAppPackageEventRequest(const std::wstring& request);
  SubscribeForAppPackageEventRequest(SubscribeForAppPackageEventRequest&&) noexcept = default;

  PackageCatalogEvent CatalogEvent() const noexcept { return catalogEvent; }
  EventAction CatalogAction() const noexcept { return catalogAction; }
  std::wstring PackageFamilyName() const { return packageFamilyName; }
  IPCEvent* PackageEvent() const noexcept { return packageEvent.get(); }

  // Adds the handler unless it is empty, and begins to watch; throws as IPCEvent::Register.
  void RegisterPackageEvent(const CompletionHandler& completed);

  // The command of a stored request; null when the text is no such request or its command cannot be
  // run late. Throws nothing but std::bad_alloc.
  static PackageEventCommandPtr ParseEventCommand(const std::wstring& request);

 private:
  PackageCatalogEvent catalogEvent{};
  EventAction catalogAction{};
  std::wstring packageFamilyName;
  std::unique_ptr<IPCEvent> packageEvent;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
