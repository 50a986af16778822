#include "service/orvane_service.h"

#include <exception>
#include <new>
#include <utility>

#include "events/package_event_manager.h"
#include "events/power_events.h"
#include "events/zephra_events.h"
#include "platform/hresult_error.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/type_name.h"
#include "service/boot.h"
#include "service/client_context.h"
#include "service/dispatch.h"
#include "service/oobe_event.h"
#include "service/query_handlers.h"
#include "service/s_mode.h"
#include "service/startup.h"
#include "storage/cap_data_store.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kThrew[] = L"%S.%S threw exception %S";
constexpr wchar_t kThrewRuntimeError[] = L"%S.%S threw hresult_error: Message: %s, Code: %i";

constexpr char kPolicyChangedKey[] = "orvane_service_policy_changed_event";

constexpr unsigned kFreeMemory = 1;
constexpr std::uint32_t kSessionLogon = 5;   // WTS_SESSION_LOGON
constexpr std::uint32_t kSessionLogoff = 6;  // WTS_SESSION_LOGOFF

// The boundary of the slots that have no result to report a failure with.
template <typename Body>
void Guard(const char* slot, Body&& body) noexcept {
  const auto* logger = Logging::LogManager::GetLogger();
  constexpr const char* kClass = Platform::TypeName<OrvaneService>();
  try {
    std::forward<Body>(body)();
  } catch (const winrt::hresult_error& error) {
    logger->LogError(kThrewRuntimeError, kClass, slot, error.message().c_str(), error.code());
  } catch (const std::exception& error) {
    logger->LogError(kThrew, kClass, slot, error.what());
  }
}

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
  Guard("Destroy", [] { PackageCatalogEventManager::clear_events(); });
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
  Guard("Start", [this] {
    state->startupThread = Platform::Thread([shared = state] { RunStartupTask(shared); });
    state->startupThread.Detach();
  });
}

void OrvaneService::power_event_task(std::uint32_t eventType) noexcept {
  Guard("power_event_task", [eventType] { HandlePowerEvent(eventType); });
}

bool OrvaneService::oobe_event_task() noexcept {
  return RunOobeEventTask(*state);
}

void OrvaneService::OnSessionChange(std::uint32_t code) noexcept {
  Guard("OnSessionChange", [code] {
    if (code == kSessionLogon) RegisterExistingPackageCatalogManagerRequests();
    if (code == kSessionLogoff) PackageCatalogEventManager::clear_events();
  });
}

int OrvaneService::RegisterPowerEvent(const wchar_t* request, const wchar_t* /*clientId*/) {
  return RegisterPowerSubscription(request);
}

int OrvaneService::UnregisterPowerEvent(const wchar_t* request, const wchar_t* /*clientId*/) {
  return UnregisterPowerSubscription(request);
}

void OrvaneService::FulfillPowerManagementEventRequests(std::uint32_t eventType) {
  FulfillPowerSubscriptions(eventType);
}

int OrvaneService::RegisterZephraEvent(const wchar_t* request, const wchar_t* /*clientId*/) {
  return RegisterZephraSubscription(request);
}

int OrvaneService::UnregisterZephraEvent(const wchar_t* request, const wchar_t* /*clientId*/) {
  return UnregisterZephraSubscription(request);
}

void OrvaneService::FulfillZephraManagementEventRequests(std::uint32_t eventType) {
  FulfillZephraSubscriptions(eventType);
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
  return Orvane::HasBeenInSMode();
}

bool OrvaneService::Launch10SSwitchSoftwares() {
  return Orvane::Launch10SSwitchSoftwares();
}

int OrvaneService::OnPolicyChangedEvent(const wchar_t* /*request*/, const wchar_t* /*clientId*/) {
  try {
    Storage::CapDataStore store;
    store.persist(kPolicyChangedKey, "yes");
    FulfillZephraSubscriptions(static_cast<std::uint32_t>(ZephraEvent::PolicyChanged));
  } catch (const winrt::hresult_error&) {  // NOLINT(bugprone-empty-catch): documented as silent
  } catch (const std::exception&) {        // NOLINT(bugprone-empty-catch): likewise
  }
  return 0;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
