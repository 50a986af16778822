#include "servicehost/service_process.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include <windows.h>

#include "hosting/text.h"
#include "servicehost/guarded_folder.h"
#include "servicehost/log_folder.h"
#include "servicehost/pipe_server.h"
#include "servicehost/power_notifications.h"
#include "servicehost/system_targets.h"

namespace Vx::Hosting::ServiceHost {

namespace {

constexpr wchar_t kRuns[] = L"the service runs as process ";
constexpr wchar_t kStops[] = L"the service is asked to stop";
constexpr wchar_t kFailed[] = L"the service cannot run: ";
constexpr wchar_t kOverflowed[] =
    L" codes of Windows were dropped, because the module was busy with an earlier one";

constexpr DWORD kTick = 1000;        // milliseconds between checkpoints
constexpr DWORD kWaitHint = 10'000;  // milliseconds until the next one is due
constexpr std::chrono::seconds kSuspendPatience{2};

constexpr DWORD kAccepted = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_PRESHUTDOWN |
                            SERVICE_ACCEPT_POWEREVENT | SERVICE_ACCEPT_SESSIONCHANGE;
constexpr std::uint32_t kLastControl = 255;

constexpr char kNoModule[] =
    "no module is named below the key Parameters of the service; install it with --replace";

// The service's name, for the callbacks from Windows.
std::wstring& TheName() {
  static std::wstring name;
  return name;
}

DWORD WINAPI HandleControl(DWORD control, DWORD event, void* /*data*/, void* context) {
  return static_cast<ServiceProcess*>(context)->Control(control, event);
}

// If memory runs out here, the process terminates and the service manager restarts it.
void WINAPI ServiceMain(DWORD /*count*/, LPWSTR* /*arguments*/) noexcept {
  const std::wstring programData = ProgramDataFolder();
  // The module finds its store through this variable. The emulator gives services another value.
  SetEnvironmentVariableW(L"ProgramData", programData.c_str());
  const ServiceOptions options = ReadParameters(TheName());
  const Writers accepted = options.development ? Writers::Account : Writers::System;
  LogFolder log(LogsFolder(programData), TheName(), LogLimits{},
                [&] { PrepareFolders(programData, accepted, Existing::Report); });
  const std::vector<LogTarget> places = {[&log](const LogEntry& entry) { log.Write(entry); },
                                         EventLogTarget(OpenEventLog(TheName())),
                                         TraceTarget(OpenTrace())};
  SERVICE_STATUS_HANDLE handle = nullptr;
  ServiceProcess service(options, places,
                         [&handle](SERVICE_STATUS& status) { SetServiceStatus(handle, &status); });
  handle = RegisterServiceCtrlHandlerExW(TheName().c_str(), &HandleControl, &service);
  if (handle != nullptr) service.Run();
}

// Returns the Windows error code, which the service manager shows, or 1 if `error` has none.
std::uint32_t CodeOf(const std::exception& error) noexcept {
  std::uint32_t code = 0;
  if (const auto* windows = dynamic_cast<const WindowsError*>(&error)) code = windows->Code();
  if (const auto* refused = dynamic_cast<const std::system_error*>(&error)) {
    code = static_cast<std::uint32_t>(refused->code().value());
  }
  return code == 0 ? 1 : code;
}

}  // namespace

CodeQueue::CodeQueue(HostLoop& loop, ServiceLog& output, std::size_t limit)
    : host(loop), log(output), capacity(limit), worker([this] { Run(); }) {}

CodeQueue::~CodeQueue() {
  {
    const std::lock_guard guard(lock);
    ending = true;
  }
  changed.notify_all();
  worker.Join();
}

void CodeQueue::Add(Code code) noexcept {
  try {
    std::unique_lock guard(lock);
    codes.push_back(code);
    if (codes.size() > capacity) DropOne();
    changed.notify_all();
    if (code != Code{&HostLoop::OnPower, PBT_APMSUSPEND}) return;
    // The machine may sleep once every handler has returned.
    changed.wait_for(guard, kSuspendPatience, [this] { return codes.empty() && !forwarding; });
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): see the header
  }
}

// Drops the oldest code that occurs again later in the queue. If all differ, drops the oldest.
void CodeQueue::DropOne() {
  const auto isRepeated = [this](auto at) {
    return std::find(at + 1, codes.end(), *at) != codes.end();
  };
  auto victim = codes.begin();
  while (victim != codes.end() && !isRepeated(victim)) ++victim;
  if (victim == codes.end()) victim = codes.begin();
  codes.erase(victim);
  ++dropped;
}

void CodeQueue::Run() noexcept {
  std::unique_lock guard(lock);
  while (true) {
    changed.wait(guard, [this] { return ending || !codes.empty(); });
    if (codes.empty()) return;
    const Code code = codes.front();
    codes.pop_front();
    const std::uint64_t lost = std::exchange(dropped, 0);
    forwarding = true;
    guard.unlock();
    try {
      if (lost != 0) log.Add(L"WARNING", std::to_wstring(lost) + kOverflowed);
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): no memory for the line
    }
    (host.*code.forward)(code.code);
    guard.lock();
    forwarding = false;
    changed.notify_all();
  }
}

// Replaces the queue that Control uses. The previous one forwards its codes before it is destroyed.
void ServiceProcess::Publish(std::unique_ptr<CodeQueue> next) {
  const std::lock_guard guard(queueLock);
  queue.swap(next);
}

ServiceProcess::ServiceProcess(ServiceOptions settings, std::vector<LogTarget> places,
                               StatusReport manager)
    : options(std::move(settings)),
      report(std::move(manager)),
      log(std::move(places)),
      stop(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
  if (stop == nullptr) throw std::system_error(ERROR_NOT_ENOUGH_MEMORY, std::system_category());
}

// Only pending states have a checkpoint. Reporting the same state again signals progress.
void ServiceProcess::Report(std::uint32_t state, std::uint32_t specificCode) noexcept {
  const std::lock_guard guard(stateLock);
  const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
  if (std::exchange(reported, state) != state) checkpoint = 0;
  if (pending) ++checkpoint;
  SERVICE_STATUS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  if (state == SERVICE_RUNNING) status.dwControlsAccepted = kAccepted;
  status.dwWin32ExitCode = specificCode == 0 ? ERROR_SUCCESS : ERROR_SERVICE_SPECIFIC_ERROR;
  status.dwServiceSpecificExitCode = specificCode;
  status.dwCheckPoint = checkpoint;
  if (pending) status.dwWaitHint = kWaitHint;
  report(status);
}

void ServiceProcess::Run() noexcept {
  std::uint32_t failure = 0;
  try {
    Serve();
  } catch (const std::exception& error) {
    try {
      log.Add(L"ERROR", kFailed + Wide(error.what()));
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): the exit code says so
    }
    failure = CodeOf(error);
  }
  log.Flush();  // the process may be terminated after the report
  Report(SERVICE_STOPPED, failure);
}

void ServiceProcess::Serve() {
  Report(SERVICE_START_PENDING);
  if (options.module.empty()) throw std::runtime_error(kNoModule);
  const Platform::UniqueHandle ended(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  Platform::Thread ticks;  // reports progress while the objects in the block are destroyed
  {
    HostLoop host({.module = options.module, .modernStandby = HasModernStandby()}, log);
    Report(SERVICE_START_PENDING);
    const PipeServer server(
        {.path = PipePath(options.name), .allowed = options.allowed},
        std::bind_front(&HostLoop::Execute, &host),
        [this](const wchar_t* level, std::wstring_view message) { log.Add(level, message); });
    Publish(std::make_unique<CodeQueue>(host, log));
    const auto withdraw = [](ServiceProcess* owner) { owner->Publish(nullptr); };
    const std::unique_ptr<ServiceProcess, decltype(withdraw)> published(this, withdraw);
    log.Add(L"INFO", kRuns + std::to_wstring(GetCurrentProcessId()));
    Report(SERVICE_RUNNING);
    WaitForSingleObject(stop.get(), INFINITE);
    Report(SERVICE_STOP_PENDING);
    log.Add(L"INFO", kStops);
    // Last, because a throw after this would end the process.
    ticks = Platform::Thread([&] {
      while (WaitForSingleObject(ended.get(), kTick) == WAIT_TIMEOUT) Report(SERVICE_STOP_PENDING);
    });
  }
  SetEvent(ended.get());
  ticks.Join();
}

std::uint32_t ServiceProcess::Control(std::uint32_t control, std::uint32_t event) noexcept {
  const auto add = [this](CodeQueue::Code code) {
    const std::lock_guard guard(queueLock);
    if (queue != nullptr) queue->Add(code);
    return std::uint32_t{NO_ERROR};
  };
  if (control == SERVICE_CONTROL_POWEREVENT) return add({&HostLoop::OnPower, event});
  if (control == SERVICE_CONTROL_SESSIONCHANGE) return add({&HostLoop::OnSession, event});
  const bool stops = control == SERVICE_CONTROL_STOP || control == SERVICE_CONTROL_PRESHUTDOWN;
  if (stops) SetEvent(stop.get());
  if (stops || control == SERVICE_CONTROL_INTERROGATE) return NO_ERROR;
  if (!options.development || control < kPowerControl || control > kLastControl) {
    return ERROR_CALL_NOT_IMPLEMENTED;
  }
  return control < kSessionControl ? add({&HostLoop::OnPower, control - kPowerControl})
                                   : add({&HostLoop::OnSession, control - kSessionControl});
}

// Error 1063 means that the service manager did not start the program:
// https://learn.microsoft.com/windows/win32/api/winsvc/nf-winsvc-startservicectrldispatcherw
std::uint32_t RunUnderManager(const std::wstring& name) {
  TheName() = name;
  const SERVICE_TABLE_ENTRYW table[] = {{TheName().data(), &ServiceMain}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherW(table) != FALSE ? ERROR_SUCCESS : GetLastError();
}

}  // namespace Vx::Hosting::ServiceHost
