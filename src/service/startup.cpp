#include "service/startup.h"

#include <chrono>
#include <exception>

#include "platform/clock.h"
#include "platform/hresult_error.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "service/service_state.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kOobeNotCompleted[] = L"OrvaneService: OOBE not completed: %d";
constexpr wchar_t kOobeCompleted[] = L"OrvaneService: Verified that OOBE completed.";
constexpr wchar_t kTerminatedInOobe[] = L"%S: terminated (OOBE Completed test)";
constexpr wchar_t kThrew[] = L"%S threw exception %S";
constexpr wchar_t kThrewRuntimeError[] = L"%S threw hresult_error: Message: %s, Code: %i";

constexpr char kStartupTask[] = "Vx::Tessel::Server::Services::Orvane::OrvaneService::startup_task";

constexpr std::chrono::milliseconds kOobePoll{1000};
constexpr int kPollsPerLogLine = 60;

// Polls until first-run set-up is over; a query that Windows refuses counts as "not yet". False
// when the service ends first.
bool WaitForOobe(const ServiceState& state) {
  const auto& machine = Platform::CurrentMachine();
  for (int poll = 0;; ++poll) {
    const auto oobe = machine.oobe->Query();
    if (oobe.known && oobe.complete) return true;
    if (poll % kPollsPerLogLine == 0) {
      state.logger->LogInfo(kOobeNotCompleted, static_cast<int>(oobe.complete));
    }
    const auto wait = machine.clock->Wait(state.stopEvent.get(), kOobePoll);
    if (wait.outcome != Platform::WaitOutcome::TimedOut) {
      state.logger->LogInfo(kTerminatedInOobe, kStartupTask);
      return false;
    }
  }
}

void StartupTask(ServiceState& state) {
  if (!WaitForOobe(state)) return;
  state.logger->LogInfo(kOobeCompleted);
}

}  // namespace

void RunStartupTask(const std::shared_ptr<ServiceState>& state) noexcept {
  try {
    StartupTask(*state);
  } catch (const winrt::hresult_error& error) {
    state->logger->LogError(kThrewRuntimeError, kStartupTask, error.message().c_str(),
                            error.code());
  } catch (const std::exception& error) {
    state->logger->LogError(kThrew, kStartupTask, error.what());
  }
}

}  // namespace Vx::Tessel::Server::Services::Orvane
