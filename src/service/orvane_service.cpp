#include "service/orvane_service.h"

#include <exception>
#include <new>
#include <string>
#include <utility>

#include "events/package_event_manager.h"
#include "events/power_events.h"
#include "events/zephra_events.h"
#include "launch/text_files.h"
#include "launch/windows_mode_check_behavior.h"
#include "platform/files.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/windows_runtime_error.h"
#include "service/boundary.h"
#include "service/client_context.h"
#include "service/dispatch.h"
#include "service/oobe_event.h"
#include "service/power_event.h"
#include "service/query_handlers.h"
#include "service/s_mode.h"
#include "service/startup.h"
#include "storage/cap_data_store.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kStarted[] = L"%S: Started";
constexpr char kFulfillZephra[] =
    "Vx::Tessel::Server::Services::Orvane::OrvaneService::FulfillZephraManagementEventRequests";

constexpr char kPolicyChangedKey[] = "orvane_service_policy_changed_event";

constexpr wchar_t kSwitchCaller[] = L"Win10SSwitch";
constexpr wchar_t kSwitchArguments[] = L"C:\\Program Files\\Vx\\McAfeePre\\McAfeePar.txt";
constexpr wchar_t kSwitchProgram[] = L"C:\\Program Files\\Vx\\McAfeePre\\DADUpdater.exe";

constexpr unsigned kFreeMemory = 1;
constexpr std::uint32_t kSessionLogon = 5;   // WTS_SESSION_LOGON
constexpr std::uint32_t kSessionLogoff = 6;  // WTS_SESSION_LOGOFF

void SignalIfMade(const Platform::UniqueHandle& event) {
  if (event != nullptr) Platform::CurrentMachine().kernelObjects->Signal(event.get());
}

}  // namespace

OrvaneService* OrvaneService::Create() noexcept {
  try {
    return new OrvaneService();
  } catch (const std::exception&) {
    return nullptr;
  }
}

OrvaneService::OrvaneService() : state(std::make_shared<ServiceState>()) {}

OrvaneService::~OrvaneService() {
  SignalIfMade(state->stopEvent);
  SignalIfMade(state->sessionStopEvent);
  // Their watchers would keep the module loaded for ever.
  Contain("Destroy", [] { PackageCatalogEventManager::clear_events(); });
}

void* OrvaneService::Destroy(unsigned flags) noexcept {
  void* self = this;
  this->~OrvaneService();
  if ((flags & kFreeMemory) != 0) ::operator delete(self);
  return self;
}

std::uint32_t OrvaneService::CreateClientContext(const wchar_t* clientId,
                                                 ClientContext** context) noexcept {
  return MakeClientContext(clientId, context);
}

std::uint32_t OrvaneService::ReleaseClientContext(ClientContext** context) noexcept {
  return FreeClientContext(context);
}

std::uint32_t OrvaneService::ExecuteCommand(ClientContext* context, std::uint32_t functionId,
                                            const wchar_t* request, wchar_t** response,
                                            CompletionCallback* callback) noexcept {
  return Dispatch(*this, context, functionId, request, response, callback);
}

void OrvaneService::Start() noexcept {
  Contain("Start",
          [this] { Platform::StartDetached([shared = state] { RunStartupTask(shared); }); });
}

void OrvaneService::power_event_task(std::uint32_t eventType) noexcept {
  Contain("power_event_task", [&] { HandlePowerEvent(*this, eventType); });
}

bool OrvaneService::oobe_event_task() noexcept {
  return RunOobeEventTask(*state);
}

void OrvaneService::OnSessionChange(std::uint32_t code) noexcept {
  Contain("OnSessionChange", [code] {
    if (code == kSessionLogon) RegisterExistingPackageCatalogManagerRequests();
    if (code == kSessionLogoff) PackageCatalogEventManager::clear_events();
  });
}

int OrvaneService::RegisterPowerEvent(const wchar_t* request, const wchar_t* /*clientId*/) {
  return RegisterSubscription(kPowerEvents, request);
}

int OrvaneService::UnregisterPowerEvent(const wchar_t* request, const wchar_t* /*clientId*/) {
  return UnregisterSubscription(kPowerEvents, request);
}

void OrvaneService::FulfillPowerManagementEventRequests(std::uint32_t eventType) {
  FulfillSubscriptions(kPowerEvents, eventType);
}

int OrvaneService::RegisterZephraEvent(const wchar_t* request, const wchar_t* /*clientId*/) {
  return RegisterSubscription(kZephraEvents, request);
}

int OrvaneService::UnregisterZephraEvent(const wchar_t* request, const wchar_t* /*clientId*/) {
  return UnregisterSubscription(kZephraEvents, request);
}

void OrvaneService::FulfillZephraManagementEventRequests(std::uint32_t eventType) {
  FulfillZephraManagementEventRequests(*state, eventType);
}

void OrvaneService::FulfillZephraManagementEventRequests(const ServiceState& state,
                                                         std::uint32_t eventType) {
  state.logger->LogInfo(kStarted, kFulfillZephra);
  FulfillSubscriptions(kZephraEvents, eventType);
}

std::uint32_t OrvaneService::GetSubscriptions(Json::WideDocument* response,
                                              const RequestCaller& caller) {
  return Orvane::GetSubscriptions(response, caller);
}

std::uint32_t OrvaneService::GetSleepState(Json::WideDocument* response,
                                           const RequestCaller& caller) {
  return Orvane::GetSleepState(response, caller);
}

bool OrvaneService::HasBeenInSMode() {
  return Qubo::WindowsModeCheckBehavior().HasBeenInSMode();
}

bool OrvaneService::Launch10SSwitchSoftwares() {
  const Platform::Files& files = *Platform::CurrentMachine().files;
  if (!files.ExistsByExactName(kSwitchArguments)) return false;
  if (!files.ExistsByExactName(kSwitchProgram)) return false;
  const std::wstring arguments = ReadTextFile(kSwitchArguments, kSwitchCaller, *state->logger);
  return LaunchExeFor10SSwitch(kSwitchProgram, arguments.c_str());
}

int OrvaneService::OnPolicyChangedEvent(const wchar_t* /*request*/, const wchar_t* /*clientId*/) {
  try {
    Storage::CapDataStore store;
    store.persist(kPolicyChangedKey, "yes");
    FulfillZephraManagementEventRequests(static_cast<std::uint32_t>(ZephraEvent::PolicyChanged));
  } catch (
      const Platform::WindowsRuntimeError&) {  // NOLINT(bugprone-empty-catch): documented as silent
  } catch (const std::exception&) {            // NOLINT(bugprone-empty-catch): likewise
  }
  return 0;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
