#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "events/event_commands.h"
#include "events/package_event.h"
#include "events/subscription_forms.h"

namespace Vx::Tessel::Server::Services::Orvane {

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
