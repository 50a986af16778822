#include "service/oobe_event.h"

#include <exception>
#include <memory>
#include <mutex>

#include "json/utf8.h"
#include "launch/aurelo_schedule.h"
#include "launch/qubo_facade.h"
#include "platform/hresult_error.h"
#include "platform/type_name.h"
#include "service/orvane_service.h"
#include "service/service_state.h"
#include "storage/cap_data_store.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kScheduleFailed[] = L"Problem while scheduling Vx Aurelo launch. %s";
constexpr wchar_t kNotSending[] = L"OrvaneService::oobe_event_task() / qubo not sending event";
constexpr wchar_t kThrew[] = L"%S.%S threw exception %S";
constexpr wchar_t kThrewRuntimeError[] = L"%S.%S threw hresult_error: Message: %s, Code: %i";

constexpr const char* kClass = Platform::TypeName<OrvaneService>();
constexpr char kOobeEventTask[] = "oobe_event_task";

constexpr char kSentKey[] = "oobe_complete_event_sent_to_quboapp";

void ScheduleAurelo(ServiceState& state) {
  try {
    Aurelo::ScheduleLaunch(*state.logger, state.aureloLaunchTimer);
  } catch (const std::exception& error) {
    state.logger->LogError(kScheduleFailed, Json::ToWide(error.what()).c_str());
  }
}

std::unique_ptr<Storage::CapDataStore> OpenStore() {
  try {
    return std::make_unique<Storage::CapDataStore>();
  } catch (const std::exception&) {
    return nullptr;
  }
}

bool TellCompanionApp() {
  const Qubo::QuboFacade facade;
  facade.RegisterApp();
  return facade.CallAppServiceAfterOobe();
}

bool OobeEventTask(ServiceState& state) {
  static std::mutex oneRunAtATime;
  const std::lock_guard guard(oneRunAtATime);
  ScheduleAurelo(state);
  const auto store = OpenStore();
  if (store == nullptr) return true;
  if (store->readBool(kSentKey, false)) {
    state.logger->LogInfo(kNotSending);
    return true;
  }
  if (!TellCompanionApp()) return false;
  store->persist(kSentKey, true);
  return true;
}

}  // namespace

bool RunOobeEventTask(ServiceState& state) noexcept {
  try {
    return OobeEventTask(state);
  } catch (const winrt::hresult_error& error) {
    state.logger->LogError(kThrewRuntimeError, kClass, kOobeEventTask, error.message().c_str(),
                           error.code());
  } catch (const std::exception& error) {
    state.logger->LogError(kThrew, kClass, kOobeEventTask, error.what());
  }
  return false;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
