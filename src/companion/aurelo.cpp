#include "companion/aurelo.h"

#include <chrono>
#include <exception>
#include <optional>
#include <utility>

#include "launch/launcher.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/thread.h"
#include "storage/cap_data_store.h"

namespace Vx::Tessel::Server::Services::Orvane::Aurelo {

namespace {

constexpr wchar_t kNoStore[] = L"Failed to create CapDataStore instance";
constexpr wchar_t kAlreadyLaunched[] = L"Vx Aurelo already launched. No need to schedule";
constexpr wchar_t kScheduling[] = L"Scheduling Vx Aurelo launch";
constexpr wchar_t kNoTimer[] = L"CreateWaitableTimer (Aurelo) failed with error %d";
constexpr wchar_t kTimerNotSet[] = L"SetWaitableTimer (Aurelo) failed with error %d";
constexpr wchar_t kLaunched[] = L"Aurelo launched";
constexpr wchar_t kNotLaunched[] = L"Aurelo not launched";
constexpr wchar_t kNotMarked[] =
    L"Aurelo not launched, because the store could not be written. It is scheduled again at the "
    L"next start.";
constexpr wchar_t kNotSending[] = L"OrvaneService::oobe_event_task() / aurelo not sending event";
constexpr wchar_t kLaunchThrew[] = L"Problem while launching Vx Aurelo. %S";
constexpr wchar_t kLaunchThrewUnknown[] = L"Problem while launching Vx Aurelo.";

constexpr char kLaunchedMark[] = "oobe_complete_aurelo_launched";
constexpr std::chrono::hours kDelay{1};

// Logs and returns null if the store cannot be opened. An open store throws if its mutex fails.
std::unique_ptr<Storage::CapDataStore> OpenStore(const Logging::TraceLogger& logger) {
  auto store = Storage::TryOpenStore();
  if (store == nullptr) logger.LogError(kNoStore);
  return store;
}

void LaunchUnlessMarked(const Logging::TraceLogger& logger) {
  const auto store = OpenStore(logger);
  if (store == nullptr) return;
  if (store->readBool(kLaunchedMark, false)) {
    logger.LogInfo(kNotSending);
    return;
  }
  // Marked before the launch. Otherwise, each start of the service would retry an app that cannot
  // start. A store that could not be read may contain the mark, even if it can be written now.
  if (!Storage::MayReplace(store->State()) || !store->persist(kLaunchedMark, true)) {
    logger.LogWarning(kNotMarked);
    return;
  }
  logger.LogInfo(AureloFacade().LaunchUwpForOobe() ? kLaunched : kNotLaunched);
}

// The worker thread's body. Catches every exception.
void LaunchLater(const Platform::SharedHandle& timer, const Logging::TraceLogger& logger) noexcept {
  try {
    // If there is no timer, the wait returns at once and the app is launched without a delay.
    Platform::CurrentMachine().clock->Wait(timer.get(), std::nullopt);
    LaunchUnlessMarked(logger);
  } catch (const std::exception& error) {
    logger.LogError(kLaunchThrew, error.what());
  } catch (...) {
    logger.LogError(kLaunchThrewUnknown);
  }
}

}  // namespace

bool AureloLaunchBehavior::Run(const std::wstring& parameter) const {
  return Launcher().Run(alias, package_family_name, parameter);
}

void ScheduleLaunch(const Logging::TraceLogger& logger, LaunchTimer& aureloLaunchTimer) {
  const auto store = OpenStore(logger);
  if (store == nullptr) return;
  if (store->readBool(kLaunchedMark, false)) {
    logger.LogInfo(kAlreadyLaunched);
    return;
  }
  logger.LogInfo(kScheduling);

  Platform::Clock& clock = *Platform::CurrentMachine().clock;
  auto made = clock.MakeTimer();
  if (!made) {
    logger.LogError(kNoTimer, made.Error());
    return;
  }
  Platform::SharedHandle timer = *std::move(made);
  aureloLaunchTimer = timer;
  if (const auto error = clock.SetTimer(timer.get(), kDelay); error != 0) {
    timer.reset();
    logger.LogError(kTimerNotSet, error);
  }
  Platform::StartDetached([timer = std::move(timer), &logger] { LaunchLater(timer, logger); });
}

}  // namespace Vx::Tessel::Server::Services::Orvane::Aurelo
