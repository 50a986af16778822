#include "events/package_event_request.h"

#include "json/json_object.h"
#include "platform/windows_runtime_error.h"
#include "records/subscription_hash.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kUnknownEvent[] = L"catalogEvent is unknown";

std::uint32_t Code(const Json::JsonObject& document, const std::wstring& key) {
  return Json::TruncateToUint32(document.GetNamedNumber(key));
}

}  // namespace

SubscribeForAppPackageEventRequest::SubscribeForAppPackageEventRequest(
    const std::wstring& request, const std::shared_ptr<FiringMark>& mark) {
  const auto document = Json::JsonObject::Parse(request);
  catalogEvent = static_cast<PackageCatalogEvent>(Code(document, kPackageForm.event));
  catalogAction = static_cast<EventAction>(Code(document, kPackageForm.action));
  packageFamilyName = document.GetNamedString(kPackageForm.family);
  const auto parameters = document.GetNamedObject(kPackageForm.parameters);

  if (MeaningOf(kPackageCodes, static_cast<std::uint32_t>(catalogEvent)) == nullptr) {
    throw Platform::WindowsRuntimeError(kUnknownCatalogEvent, kUnknownEvent);
  }
  packageEvent = std::make_unique<PackageUninstallingPCEvent>(
      packageFamilyName, catalogEvent, CreateEventCommand(catalogAction, parameters), mark,
      Records::SubscriptionHash(request));
}

void SubscribeForAppPackageEventRequest::RegisterPackageEvent(const CompletionHandler& completed) {
  if (completed) packageEvent->EventComplete(completed);
  packageEvent->Register();
}

std::shared_ptr<PackageEventCommand> SubscribeForAppPackageEventRequest::ParseEventCommand(
    const std::wstring& request) {
  try {
    const auto document = Json::JsonObject::Parse(request);
    const auto action = static_cast<EventAction>(Code(document, kPackageForm.action));
    return std::dynamic_pointer_cast<PackageEventCommand>(
        CreateEventCommand(action, document.GetNamedObject(kPackageForm.parameters)));
  } catch (const Platform::WindowsRuntimeError&) {
    return nullptr;
  }
}

}  // namespace Vx::Tessel::Server::Services::Orvane
