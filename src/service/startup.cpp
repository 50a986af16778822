#include "service/startup.h"

#include <chrono>
#include <string>

#include "bod/set_born_on_date.h"
#include "events/package_event_manager.h"
#include "launch/launcher.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "service/boundary.h"
#include "service/oobe_event.h"
#include "service/s_mode.h"
#include "service/service_state.h"
#include "service/wakeup_check.h"

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

constexpr char kStartupTask[] = "Vx::Tessel::Server::Services::Orvane::OrvaneService::startup_task";

constexpr std::chrono::milliseconds kOobePoll{1000};
constexpr int kPollsPerLogLine = 60;
constexpr std::chrono::milliseconds kUserPoll{1000};
constexpr int kUserPolls = 7200;
constexpr std::chrono::milliseconds kAttemptPause{600'000};
constexpr int kAttempts = 7;

// Waits on a stop event. Returns true if the wait timed out, that is, the service still exists.
bool Pause(Platform::RawHandle stop, std::chrono::milliseconds length, Platform::WaitResult& wait) {
  wait = Platform::CurrentMachine().clock->Wait(stop, length);
  return wait.outcome == Platform::WaitOutcome::TimedOut;
}

// Waits until OOBE is complete. A failed query means "not yet". Returns false if the service stops.
bool WaitForOobe(const ServiceState& state) {
  Platform::WaitResult wait;
  for (int poll = 0;; ++poll) {
    const auto oobe = Platform::CurrentMachine().oobe->Query();
    if (oobe.known && oobe.complete) return true;
    if (poll % kPollsPerLogLine == 0) {
      state.logger->LogInfo(kOobeNotCompleted, static_cast<int>(oobe.complete));
    }
    if (Pause(state.stopEvent.get(), kOobePoll, wait)) continue;
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

// Skips the check if an earlier one for this service object raised its event. Does not wait for it.
void StartWakeupCheck(const std::shared_ptr<ServiceState>& state) {
  if (state->wakeupCheckDone) return;
  state->logger->LogInfo(kStarted, kWakeupCheckName);
  // Startup continues even if no thread can be created for the check.
  CatchAndLog("startup_task",
              [&] { Platform::StartDetached([state] { CheckToSendWakeupEvent(state); }); });
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
    if (Pause(state.sessionStopEvent.get(), kUserPoll, wait)) continue;
    state.logger->LogInfo(kTerminatedInUserWait, kStartupTask, wait.lastError, wait.code);
    return false;
  }
  state.logger->LogInfo(kUserWaitOver);
  return true;
}

void NotifyOobe(ServiceState& state) {
  Platform::WaitResult wait;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (RunOobeEventTask(state)) return;
    state.logger->LogInfo(kAttemptFailed, attempt);
    if (Pause(state.stopEvent.get(), kAttemptPause, wait)) continue;
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

void startup_task(const std::shared_ptr<ServiceState>& state) noexcept {
  CatchAndLog("startup_task", [&] { StartupTask(state); });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
