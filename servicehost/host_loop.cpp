#include "servicehost/host_loop.h"

#include <chrono>
#include <cwchar>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <windows.h>

#include "platform/clock.h"
#include "platform/com.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/system_services.h"

namespace Vx::Hosting::ServiceHost {

namespace {

using Platform::CurrentMachine;

// A manual-reset event that ends running delays early.
constexpr wchar_t kStandbyEvent[] = L"{CE7DC567-F47B-4A07-8489-C9DEB372B88F}";

constexpr wchar_t kPowerForwarded[] = L"power event ";
constexpr wchar_t kSessionForwarded[] = L"session change ";
constexpr wchar_t kNoCloaking[] =
    L"COM cannot call as the user, so messages may not reach apps: status 0x%08x";
constexpr wchar_t kNoStandbyEvent[] = L"the standby event cannot be used, error ";
constexpr wchar_t kNoDisplay[] = L"the standby event cannot follow the display, error ";
constexpr wchar_t kSetupOver[] = L"first-run set-up is complete";
constexpr wchar_t kStarted[] = L"the module is started: ";
constexpr wchar_t kStopped[] = L"the module is stopped";

constexpr std::chrono::seconds kSetupPoll{1};

Platform::UniqueHandle ManualEvent(const std::wstring& name, ServiceLog& log) {
  auto event = CurrentMachine().kernelObjects->MakeManualEvent(name);
  if (event) return std::move(*event);
  log.Add(L"ERROR", kNoStandbyEvent + std::to_wstring(event.Error()));
  return nullptr;
}

// Initializes COM on this thread. Destroying the result uninitializes it. Do that on the same
// thread, after unloading the module. Calls to other processes must use the identity of the user
// that the thread impersonates. Without cloaking, COM uses the process's
// (https://learn.microsoft.com/windows/win32/com/cloaking). COM security can be set only once per
// process, after COM is initialized, and the module does not enable cloaking when it sets it
// itself, on its first read of the firmware.
std::shared_ptr<void> EnterCom(ServiceLog& log) {
  Platform::Com& com = *CurrentMachine().com;
  std::shared_ptr<void> entered;
  std::int32_t result = com.InitializeMultithreaded();
  if (result >= 0) {
    entered.reset(&com, [&com](void*) { com.Uninitialize(); });
    result = com.InitializeSecurity(Platform::Cloaking::Dynamic);
  }
  if (result < 0) {
    wchar_t line[std::size(kNoCloaking) + 8];
    static_cast<void>(
        std::swprintf(line, std::size(line), kNoCloaking, static_cast<unsigned>(result)));
    log.Add(L"ERROR", line);
  }
  return entered;
}

}  // namespace

HostLoop::HostLoop(const Options& options, ServiceLog& output)
    : log(output),
      com(EnterCom(output)),
      standbyEvent(options.modernStandby ? ManualEvent(kStandbyEvent, output) : nullptr),
      stop(ManualEvent({}, output)),
      module(options.module),
      moduleLog(module, [this](const VxLogLine& line) { log.Add(line); }),
      session(module.NewService()) {
  if (stop == nullptr) throw std::runtime_error("cannot create an event");
  ResetStandby();
  session.Slots()->Start();
  log.Add(L"INFO", kStarted + options.module);
  // oobe_event_task is only for a setup that completes while the service is running.
  if (const auto setup = CurrentMachine().oobe->Query(); setup.known && !setup.complete) {
    setupWatch = Platform::Thread([this] { AwaitSetup(); });
  }
  if (standbyEvent != nullptr) WatchDisplay();
}

HostLoop::~HostLoop() {
  CurrentMachine().kernelObjects->Signal(stop.get());
  if (setupWatch.Joinable()) setupWatch.Join();
  display.reset();
  ResetStandby();
  session.End();
  log.Add(L"INFO", kStopped);
}

CommandResult HostLoop::Execute(const CommandEnvelope& command, const std::wstring& client) {
  return session.Execute(command.id, command.request, client);
}

void HostLoop::OnPower(std::uint32_t code) {
  log.Add(L"INFO", kPowerForwarded + std::to_wstring(code));
  // A delay that starts at a resume must run in full, even if the display is still off.
  if (code == PBT_APMRESUMESUSPEND || code == PBT_APMRESUMEAUTOMATIC) ResetStandby();
  session.Slots()->power_event_task(code);
}

void HostLoop::OnSession(std::uint32_t code) {
  log.Add(L"INFO", kSessionForwarded + std::to_wstring(code));
  session.Slots()->OnSessionChange(code);
}

// Windows does not notify a service of Modern Standby, which begins when the display turns off and
// ends when it turns on:
// https://learn.microsoft.com/archive/blogs/winsdk/how-to-get-notified-when-going-in-and-out-of-connected-standby-from-a-windows-service
void HostLoop::WatchDisplay() {
  try {
    display.emplace(PowerNotifications::Kind::Display, [this](std::uint32_t state) {
      if (state != 0) {
        ResetStandby();
      } else {
        CurrentMachine().kernelObjects->Signal(standbyEvent.get());
      }
    });
  } catch (const std::system_error& error) {
    log.Add(L"ERROR", kNoDisplay + std::to_wstring(error.code().value()));
  }
}

// If the event stayed set, it would end every later delay immediately.
void HostLoop::ResetStandby() noexcept {
  if (standbyEvent != nullptr) ResetEvent(standbyEvent.get());
}

void HostLoop::AwaitSetup() noexcept {
  const Platform::Machine& machine = CurrentMachine();
  while (machine.clock->Wait(stop.get(), kSetupPoll).outcome == Platform::WaitOutcome::TimedOut) {
    const auto setup = machine.oobe->Query();
    if (!setup.known || !setup.complete) continue;
    log.Add(L"INFO", kSetupOver);
    session.Slots()->oobe_event_task();
    return;
  }
}

}  // namespace Vx::Hosting::ServiceHost
