#include "service/oobe_event.h"

#include <exception>
#include <mutex>

#include "companion/aurelo.h"
#include "companion/qubo_facade.h"
#include "json/utf8.h"
#include "service/boundary.h"
#include "service/service_state.h"
#include "storage/cap_data_store.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kScheduleFailed[] = L"Problem while scheduling Vx Aurelo launch. %s";
constexpr wchar_t kNotSending[] = L"OrvaneService::oobe_event_task() / qubo not sending event";

constexpr char kSentKey[] = "oobe_complete_event_sent_to_quboapp";

void ScheduleAurelo(ServiceState& state) {
  try {
    Aurelo::ScheduleLaunch(*state.logger, state.aureloLaunchTimer);
  } catch (const std::exception& error) {
    state.logger->LogError(kScheduleFailed, Json::ToWide(error.what()).c_str());
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
  const auto store = Storage::TryOpenStore();
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
  bool done = false;
  CatchAndLog("oobe_event_task", [&] { done = OobeEventTask(state); });
  return done;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
