#include "service/wakeup_check.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "events/subscription_delivery.h"
#include "json/utf8.h"
#include "launch/launcher.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "service/boundary.h"
#include "service/orvane_service.h"
#include "service/service_state.h"
#include "storage/cap_data_store.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kTerminated[] = L"%S - terminated";
constexpr wchar_t kNotANewBoot[] = L"%S: Not a new boot";
constexpr wchar_t kFulfilling[] = L"%S: FulfillZephraManagementEventRequests for: %S";
constexpr wchar_t kWaiting[] = L"%S: Waiting for user session for %d minutes";

constexpr char kLastBootTime[] = "OrvaneLastBootTime";

constexpr std::chrono::seconds kPause{5};
constexpr std::int64_t kSameBoot = 60;  // seconds, for the jitter between two clocks
constexpr int kLongestWait = 720;       // seconds

constexpr std::uint64_t kUnitsPerSecond = 10'000'000;  // FILETIME units
constexpr std::int64_t kUnixEpoch = 11'644'473'600;    // seconds from 1601 to 1970

// Waits for kPause. Returns false if the service stops first.
bool Pause(const ServiceState& state) {
  const auto wait = Platform::CurrentMachine().clock->Wait(state.stopEvent.get(), kPause);
  if (wait.outcome == Platform::WaitOutcome::TimedOut) return true;
  state.logger->LogWarning(kTerminated, kWakeupCheckName);
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
    state.logger->LogInfo(kNotANewBoot, kWakeupCheckName);
    return false;
  }
  store.persist(kLastBootTime, Storage::BsonElement::Int64(boot));
  return true;
}

void WaitForUser(ServiceState& state) {
  const Launcher launcher;
  std::wstring user;
  for (int elapsed = 0; elapsed < kLongestWait; elapsed += static_cast<int>(kPause.count())) {
    if (!Pause(state)) return;
    if (launcher.IsRealUserSession(user)) {
      state.logger->LogInfo(kFulfilling, kWakeupCheckName, Json::ToUtf8(user).c_str());
      OrvaneService::FulfillZephraManagementEventRequests(
          state, static_cast<std::uint32_t>(ZephraEvent::UserSessionAfterBoot));
      state.wakeupCheckDone = true;
      return;
    }
    if (elapsed > 0 && elapsed % 60 == 0) {
      state.logger->LogInfo(kWaiting, kWakeupCheckName, elapsed / 60);
    }
  }
}

void WakeupCheck(ServiceState& state) {
  Storage::CapDataStore store;
  const std::int64_t storedBoot = store.readInt64(kLastBootTime).value_or(0);
  if (!Pause(state)) return;
  if (IsNewBoot(state, store, storedBoot)) WaitForUser(state);
}

}  // namespace

void CheckToSendWakeupEvent(const std::shared_ptr<ServiceState>& state) noexcept {
  CatchAndLog("CheckToSendWakeupEvent", [&] { WakeupCheck(*state); });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
