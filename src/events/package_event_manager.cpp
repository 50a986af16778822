#include "events/package_event_manager.h"

#include <utility>

#include "events/subscription_forms.h"
#include "host/logging.h"
#include "json/json_object.h"
#include "platform/windows_runtime_error.h"
#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kRunningLate[] =
    L"RegisterExistingPackageCatalogManagerRequests - App uninstalled while service was not "
    L"running. Executing command now";

RequestManager StoredPackageRequests() {
  return RequestManager(kServiceDocument, kPackageForm.list);
}

void MakeLive(const std::wstring& request) {
  PackageCatalogEventManager::register_event(
      request, [request](const std::wstring&) { CompleteAppPackageEvent(request); });
}

void RunLate(const std::wstring& request, const Platform::WindowsRuntimeError& error) {
  if (error.code() != kPackageNotInstalled) return;
  Logging::LogManager::GetLogger()->LogInfo(kRunningLate);
  PackageCatalogEventManager::execute_command(request);
  CompleteAppPackageEvent(request);
}

}  // namespace

std::mutex PackageCatalogEventManager::register_event_mux;

std::vector<std::unique_ptr<SubscribeForAppPackageEventRequest>>&
PackageCatalogEventManager::requests() {
  static auto& list = *new std::vector<std::unique_ptr<SubscribeForAppPackageEventRequest>>();
  return list;
}

void PackageCatalogEventManager::register_event(const std::wstring& request,
                                                const CompletionHandler& completed,
                                                const void* /*argument*/) {
  const std::lock_guard guard(register_event_mux);
  requests().push_back(std::make_unique<SubscribeForAppPackageEventRequest>(request));
  requests().back()->RegisterPackageEvent(completed);
}

void PackageCatalogEventManager::execute_command(const std::wstring& request) {
  const auto command = SubscribeForAppPackageEventRequest::ParseEventCommand(request);
  if (command != nullptr && command->RunIfUninstalledWhileNotRunning()) command->Execute();
}

void PackageCatalogEventManager::clear_events() {
  const std::lock_guard guard(register_event_mux);
  requests().clear();
}

void RegisterAppPackageEvent(const std::wstring& request) {
  StoredPackageRequests().PersistRequest(request);
  MakeLive(request);
}

void RemoveAppPackageEvent(const std::wstring& request) {
  // The list holds the compact text of the request, not the client's spelling.
  StoredPackageRequests().RemoveRequest(Json::JsonObject::Parse(request).Stringify());
}

bool CompleteAppPackageEvent(const std::wstring& request) {
  return StoredPackageRequests().CompleteRequest(request);
}

void RegisterExistingPackageCatalogManagerRequests() {
  StoredPackageRequests().RegisterExistingRequests(&MakeLive, &RunLate);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
