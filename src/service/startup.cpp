#include "service/startup.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <string>

#include "bod/born_on_date_manager.h"
#include "companion/aurelo.h"
#include "companion/qubo_facade.h"
#include "events/package_event_manager.h"
#include "events/subscription_delivery.h"
#include "json/utf8.h"
#include "launch/launcher.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "service/boundary.h"
#include "service/orvane_service.h"
#include "service/s_mode.h"
#include "storage/cap_data_store.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kOobeNotCompleted[] = L"OrvaneService: OOBE not completed: %d";
constexpr wchar_t kOobeCompleted[] = L"OrvaneService: Verified that OOBE completed.";
constexpr wchar_t kTerminatedInOobe[] = L"%S: terminated (OOBE Completed test)";
constexpr wchar_t kStarted[] = L"%S: Started";
constexpr wchar_t kUserWait[] = L"OrvaneService: start waiting for real user session";
constexpr wchar_t kUserSeen[] = L"OrvaneService:path_expanded = [%s]";
constexpr wchar_t kUserFound[] =
    L"OrvaneService: got real user session; calling oobe_event_task(), user=%s";
constexpr wchar_t kTerminatedInUserWait[] = L"%S: terminated (Is Real User Session) - %d / %d";
constexpr wchar_t kUserWaitOver[] =
    L"OrvaneService: waited for 2 hours for real user session; abandoned";
constexpr wchar_t kAttemptFailed[] = L"OrvaneService: oobe_event_task() failed on attempt %d";
constexpr wchar_t kTerminated[] = L"%S: terminated";

constexpr wchar_t kScheduleFailed[] = L"Problem while scheduling Vx Aurelo launch. %s";
constexpr wchar_t kNotSending[] = L"OrvaneService::oobe_event_task() / qubo not sending event";

constexpr wchar_t kWakeupTerminated[] = L"%S - terminated";
constexpr wchar_t kNotANewBoot[] = L"%S: Not a new boot";
constexpr wchar_t kFulfilling[] = L"%S: FulfillZephraManagementEventRequests for: %S";
constexpr wchar_t kWaiting[] = L"%S: Waiting for user session for %d minutes";

constexpr char kStartupTask[] = "Vx::Tessel::Server::Services::Orvane::OrvaneService::startup_task";
constexpr char kWakeupCheck[] =
    "Vx::Tessel::Server::Services::Orvane::OrvaneService::CheckToSendWakeupEvent";

constexpr char kSentKey[] = "oobe_complete_event_sent_to_quboapp";
constexpr char kLastBootTime[] = "OrvaneLastBootTime";

constexpr std::chrono::milliseconds kOobePoll{1000};
constexpr int kPollsPerLogLine = 60;
constexpr std::chrono::milliseconds kUserPoll{1000};
constexpr int kUserPolls = 7200;
constexpr std::chrono::milliseconds kAttemptPause{600'000};
constexpr int kAttempts = 7;

constexpr std::chrono::seconds kWakeupPause{5};
constexpr std::int64_t kSameBoot = 60;  // seconds, for the jitter between two clocks
constexpr int kLongestWait = 720;       // seconds

constexpr std::uint64_t kUnitsPerSecond = 10'000'000;  // FILETIME units
constexpr std::int64_t kUnixEpoch = 11'644'473'600;    // seconds from 1601 to 1970

// Waits on a stop event. Returns true if the wait timed out, that is, the service still exists.
bool Pause(Platform::RawHandle stop, std::chrono::milliseconds length,
           Platform::WaitResult* result = nullptr) {
  const auto wait = Platform::CurrentMachine().clock->Wait(stop, length);
  if (result != nullptr) *result = wait;
  return wait.outcome == Platform::WaitOutcome::TimedOut;
}

// Waits until OOBE is complete. A failed query means "not yet". Returns false if the service stops.
bool WaitForOobe(const ServiceState& state) {
  for (int poll = 0;; ++poll) {
    const auto oobe = Platform::CurrentMachine().oobe->Query();
    if (oobe.known && oobe.complete) return true;
    if (poll % kPollsPerLogLine == 0) {
      state.logger->LogInfo(kOobeNotCompleted, static_cast<int>(oobe.complete));
    }
    if (Pause(state.stopEvent.get(), kOobePoll)) continue;
    state.logger->LogInfo(kTerminatedInOobe, kStartupTask);
    return false;
  }
}

// Activates the stored package subscriptions. If the service has been destroyed since the wait for
// OOBE, deactivates them, because nothing else would.
void WatchStoredPackages(const ServiceState& state) {
  RegisterExistingPackageCatalogManagerRequests(&state, state.stopEvent);
  // A service without a stop event is treated as ended, because its end could not be detected.
  if (HasEnded(state.stopEvent)) PackageCatalogEventManager::clear_events(&state);
}

// Waits for kWakeupPause. Returns false if the service stops first.
bool PauseWakeupCheck(const ServiceState& state) {
  if (Pause(state.stopEvent.get(), kWakeupPause)) return true;
  state.logger->LogWarning(kWakeupTerminated, kWakeupCheck);
  return false;
}

// Returns when Windows started, in seconds since 1970.
std::int64_t BootTime() {
  const Platform::Clock& clock = *Platform::CurrentMachine().clock;
  const auto now = static_cast<std::int64_t>(clock.UtcFileTime() / kUnitsPerSecond) - kUnixEpoch;
  return now - static_cast<std::int64_t>(clock.TickCount() / 1000);
}

// Returns whether this boot is new. If so, records it as handled, even if no user signs in.
bool IsNewBoot(const ServiceState& state, Storage::CapDataStore& store, std::int64_t storedBoot) {
  const std::int64_t boot = BootTime();
  // The stored number may be anything. A difference of doubles cannot overflow.
  const double apart = static_cast<double>(boot) - static_cast<double>(storedBoot);
  if (std::abs(apart) <= static_cast<double>(kSameBoot)) {
    state.logger->LogInfo(kNotANewBoot, kWakeupCheck);
    return false;
  }
  store.persist(kLastBootTime, Storage::BsonElement::Int64(boot));
  return true;
}

void WaitToSendWakeupEvent(ServiceState& state) {
  const Launcher launcher;
  std::wstring user;
  for (int elapsed = 0; elapsed < kLongestWait; elapsed += static_cast<int>(kWakeupPause.count())) {
    if (!PauseWakeupCheck(state)) return;
    if (launcher.IsRealUserSession(user)) {
      state.logger->LogInfo(kFulfilling, kWakeupCheck, Json::ToUtf8(user).c_str());
      OrvaneService::FulfillZephraManagementEventRequests(
          state, static_cast<std::uint32_t>(ZephraEvent::UserSessionAfterBoot));
      state.wakeupCheckDone = true;
      return;
    }
    if (elapsed > 0 && elapsed % 60 == 0) {
      state.logger->LogInfo(kWaiting, kWakeupCheck, elapsed / 60);
    }
  }
}

// The wake-up thread's body. Once per boot, waits up to twelve minutes for a real user and, if one
// signs in, raises the platform event. Stops with the service.
void CheckToSendWakeupEvent(ServiceState& state) {
  Storage::CapDataStore store;
  const std::int64_t storedBoot = store.readInt64(kLastBootTime).value_or(0);
  if (!PauseWakeupCheck(state)) return;
  if (IsNewBoot(state, store, storedBoot)) WaitToSendWakeupEvent(state);
}

// Skips the check if an earlier one for this service object raised its event. Does not wait for it.
void StartWakeupCheck(const std::shared_ptr<ServiceState>& state) {
  if (state->wakeupCheckDone) return;
  state->logger->LogInfo(kStarted, kWakeupCheck);
  // Startup continues even if no thread can be created for the check.
  CatchAndLog("startup_task", [&] {
    Platform::StartDetached([state] {
      CatchAndLog("CheckToSendWakeupEvent", [&] { CheckToSendWakeupEvent(*state); });
    });
  });
}

// Returns true once a user signs in or two hours have passed, or false if the service stops first.
bool WaitForUser(const ServiceState& state) {
  state.logger->LogInfo(kUserWait);
  const Launcher launcher;
  std::wstring user;
  Platform::WaitResult wait;
  for (int poll = 0; poll < kUserPolls; ++poll) {
    const bool real = launcher.IsRealUserSession(user);
    state.logger->LogInfo(kUserSeen, user.c_str());
    if (real) {
      state.logger->LogInfo(kUserFound, user.c_str());
      return true;
    }
    if (Pause(state.sessionStopEvent.get(), kUserPoll, &wait)) continue;
    state.logger->LogInfo(kTerminatedInUserWait, kStartupTask, wait.lastError, wait.code);
    return false;
  }
  state.logger->LogInfo(kUserWaitOver);
  return true;
}

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

void NotifyOobe(ServiceState& state) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (RunOobeEventTask(state)) return;
    state.logger->LogInfo(kAttemptFailed, attempt);
    if (Pause(state.stopEvent.get(), kAttemptPause)) continue;
    state.logger->LogInfo(kTerminated, kStartupTask);
    return;
  }
}

void StartupTask(const std::shared_ptr<ServiceState>& state) {
  if (!WaitForOobe(*state)) return;
  state->logger->LogInfo(kOobeCompleted);
  SetBornOnDate(*state->logger);
  SetFirstLockDownMode(*state->logger);
  CatchAndLog("startup_task", [&] { WatchStoredPackages(*state); });
  StartWakeupCheck(state);
  if (WaitForUser(*state)) NotifyOobe(*state);
}

}  // namespace

bool RunOobeEventTask(ServiceState& state) noexcept {
  bool done = false;
  CatchAndLog("oobe_event_task", [&] { done = OobeEventTask(state); });
  return done;
}

void startup_task(const std::shared_ptr<ServiceState>& state) noexcept {
  CatchAndLog("startup_task", [&] { StartupTask(state); });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
