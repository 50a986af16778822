#include "vxhost/service/service_manager.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <windows.h>

#include <sddl.h>
#include <shellapi.h>

#include "hosting/text.h"
#include "platform/unique_handle.h"

namespace Vx::Hosting::Tool {

namespace {

// In milliseconds, except kDay.
constexpr DWORD kPatience = 60'000;
constexpr DWORD kPause = 20;
constexpr DWORD kProcessPatience = 10'000;
constexpr DWORD kMinute = 60'000;
constexpr DWORD kDay = 86'400;          // seconds
constexpr DWORD kPreshutdown = 30'000;  // how long Windows waits for running commands

wchar_t description[] =
    L"Runs programs for client applications when the machine resumes, when the policy changes or "
    L"when a package is uninstalled.";

// Needed to read the console user's token, start programs with it and impersonate that user. Ends
// with one more null, as Windows expects.
wchar_t privileges[] =
    L"SeAssignPrimaryTokenPrivilege\0SeChangeNotifyPrivilege\0SeImpersonatePrivilege\0"
    L"SeIncreaseQuotaPrivilege\0SeTcbPrivilege\0";

// Windows' access list for a new service: local users may query it and send user-defined controls.
// https://learn.microsoft.com/windows/win32/services/service-security-and-access-rights
constexpr wchar_t kAccess[] =
    L"O:BAD:(A;;CCLCSWRPWPDTLOCRRC;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)"
    L"(A;;CCLCSWLOCRRC;;;IU)(A;;CCLCSWLOCRRC;;;SU)";
constexpr wchar_t kAccount[] = L"LocalSystem";

std::string AdviceFor(DWORD error) {
  static constexpr struct {
    DWORD error;
    const char* advice;
  } kAdvice[] = {
      {ERROR_ACCESS_DENIED, "; run as administrator"},
      {ERROR_SERVICE_DOES_NOT_EXIST, "; it is not installed"},
      {ERROR_SERVICE_EXISTS, "; remove the installed one first, or install with --replace"},
      {ERROR_SERVICE_MARKED_FOR_DELETE, "; close the programs that have it open, then try again"},
      {ERROR_SERVICE_NOT_ACTIVE, "; it is not running"},
  };
  const auto* row =
      std::ranges::find(kAdvice, error, [](const auto& known) { return known.error; });
  return row == std::end(kAdvice) ? "" : row->advice;
}

[[noreturn]] void Refused(const std::string& what, const std::wstring& name,
                          DWORD error = GetLastError()) {
  throw WindowsError("cannot " + what + " the service " + Utf8(name), error, AdviceFor(error));
}

UniqueServiceHandle OpenManager(DWORD access) {
  UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, access));
  if (manager == nullptr) {
    const DWORD error = GetLastError();
    throw WindowsError("cannot reach the service manager", error, AdviceFor(error));
  }
  return manager;
}

SC_HANDLE Raw(const UniqueServiceHandle& handle) {
  return static_cast<SC_HANDLE>(handle.get());
}

UniqueServiceHandle Open(const std::wstring& name, DWORD access, const std::string& what) {
  const UniqueServiceHandle manager = OpenManager(SC_MANAGER_CONNECT);
  UniqueServiceHandle service(OpenServiceW(Raw(manager), name.c_str(), access));
  if (service == nullptr) Refused(what, name);
  return service;
}

SERVICE_STATUS_PROCESS StatusOf(const UniqueServiceHandle& service, const std::wstring& name) {
  SERVICE_STATUS_PROCESS status{};
  DWORD size = 0;
  if (QueryServiceStatusEx(Raw(service), SC_STATUS_PROCESS_INFO, reinterpret_cast<LPBYTE>(&status),
                           sizeof status, &size) == FALSE) {
    Refused("query", name);
  }
  return status;
}

// Returns the configuration in the first element. The others hold its strings.
std::vector<QUERY_SERVICE_CONFIGW> ConfigOf(const UniqueServiceHandle& service,
                                            const std::wstring& name) {
  constexpr DWORD kMost = 8192;  // bytes; the maximum that Windows returns
  std::vector<QUERY_SERVICE_CONFIGW> config(kMost / sizeof(QUERY_SERVICE_CONFIGW) + 1);
  DWORD size = 0;
  if (QueryServiceConfigW(Raw(service), config.data(), kMost, &size) == FALSE) {
    Refused("query", name);
  }
  return config;
}

// Resets the owner and access list of a service that is being replaced to those of a new one, so
// that no other account can change what will run as SYSTEM.
void TakeOver(const UniqueServiceHandle& service, const std::wstring& name) {
  const std::wstring account = ConfigOf(service, name).front().lpServiceStartName;
  if (_wcsicmp(account.c_str(), kAccount) != 0) {
    throw std::runtime_error("the service " + Utf8(name) + " runs as " + Utf8(account) +
                             " and not as LocalSystem; remove it first");
  }
  PSECURITY_DESCRIPTOR raw = nullptr;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorW(kAccess, SDDL_REVISION_1, &raw,
                                                           nullptr) == FALSE) {
    Refused("replace", name);
  }
  const Platform::UniqueLocalMemory<void> access(raw);
  if (SetServiceObjectSecurity(Raw(service), OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                               raw) == FALSE) {
    Refused("replace", name);
  }
}

bool IsStarting(DWORD state) {
  return state == SERVICE_START_PENDING;
}

// Waits while `holds` returns true for the service's state.
SERVICE_STATUS_PROCESS AwaitWhile(const UniqueServiceHandle& service, const std::wstring& name,
                                  bool (*holds)(DWORD state)) {
  const ULONGLONG end = GetTickCount64() + kPatience;
  SERVICE_STATUS_PROCESS status = StatusOf(service, name);
  while (holds(status.dwCurrentState) && GetTickCount64() < end) {
    Sleep(kPause);
    status = StatusOf(service, name);
  }
  return status;
}

// Applies the settings that CreateService cannot. Returns those that this system does not support.
std::vector<std::string> Configure(const UniqueServiceHandle& service, const std::wstring& name,
                                   bool delays) {
  std::vector<std::string> unknown;
  const auto set = [&](const char* what, DWORD level, void* info) {
    if (ChangeServiceConfig2W(Raw(service), level, info) != FALSE) return;
    // Windows supports every level, but the emulator does not.
    const DWORD error = GetLastError();
    if (error != ERROR_INVALID_LEVEL) Refused("install", name, error);
    unknown.emplace_back(what);
  };
  SERVICE_DESCRIPTIONW text{description};
  set("a description", SERVICE_CONFIG_DESCRIPTION, &text);
  SC_ACTION actions[] = {
      {SC_ACTION_RESTART, kMinute}, {SC_ACTION_RESTART, kMinute}, {SC_ACTION_RESTART, 5 * kMinute}};
  SERVICE_FAILURE_ACTIONSW failure{};
  failure.dwResetPeriod = kDay;
  failure.cActions = static_cast<DWORD>(std::size(actions));
  failure.lpsaActions = actions;
  set("failure actions", SERVICE_CONFIG_FAILURE_ACTIONS, &failure);
  // Run the actions even if the service stops with an error, not only if it crashes.
  SERVICE_FAILURE_ACTIONS_FLAG always{TRUE};
  set("failure actions after an error", SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, &always);
  SERVICE_SID_INFO sid{SERVICE_SID_TYPE_UNRESTRICTED};
  set("a service SID", SERVICE_CONFIG_SERVICE_SID_INFO, &sid);
  SERVICE_REQUIRED_PRIVILEGES_INFOW required{privileges};
  set("required privileges", SERVICE_CONFIG_REQUIRED_PRIVILEGES_INFO, &required);
  SERVICE_PRESHUTDOWN_INFO preshutdown{kPreshutdown};
  set("time before a shutdown", SERVICE_CONFIG_PRESHUTDOWN_INFO, &preshutdown);
  SERVICE_DELAYED_AUTO_START_INFO delayed{TRUE};
  if (delays) set("a delayed start", SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &delayed);
  return unknown;
}

// Reads the options that earlier versions kept in the service's command line.
void AddEarlierOptions(const wchar_t* image, ServiceHost::ServiceOptions& options) {
  int count = 0;
  const Platform::UniqueLocalMemory<wchar_t*> words(CommandLineToArgvW(image, &count));
  for (int i = 1; words != nullptr && i < count; ++i) {
    const std::wstring_view word = words.get()[i];
    if (word == L"--development") options.development = true;
    if (word == L"--allow" && i + 1 < count) options.allowed.emplace_back(words.get()[i + 1]);
  }
}

}  // namespace

void ServiceHandleCloser::operator()(void* handle) const noexcept {
  const DWORD kept = GetLastError();
  CloseServiceHandle(static_cast<SC_HANDLE>(handle));
  SetLastError(kept);
}

std::wstring ImagePath(const ServicePlan& plan) {
  // A path cannot contain a quotation mark, and a file's full path does not end with a backslash.
  return L"\"" + plan.program + L"\" " + plan.name;
}

std::vector<std::string> ServiceManager::Install(const ServicePlan& plan) {
  const UniqueServiceHandle manager = OpenManager(SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE);
  const bool automatic = plan.start != ServicePlan::Start::Demand;
  const DWORD start = automatic ? SERVICE_AUTO_START : SERVICE_DEMAND_START;
  const wchar_t* const name = plan.name.c_str();
  const std::wstring image = ImagePath(plan);
  UniqueServiceHandle service(CreateServiceW(
      Raw(manager), name, name, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, start,
      SERVICE_ERROR_NORMAL, image.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
  const bool created = service != nullptr;
  if (!created && plan.replaces && GetLastError() == ERROR_SERVICE_EXISTS) {
    service.reset(OpenServiceW(Raw(manager), name, SERVICE_ALL_ACCESS));
  }
  if (service == nullptr) Refused("install", plan.name);
  try {
    if (!created) TakeOver(service, plan.name);
    // Written first, because a service being replaced may start between the steps.
    ServiceHost::WriteParameters({plan.name, plan.module, plan.allowed, plan.development});
    if (!created && ChangeServiceConfigW(Raw(service), SERVICE_WIN32_OWN_PROCESS,
                                         plan.start ? start : SERVICE_NO_CHANGE,
                                         SERVICE_ERROR_NORMAL, image.c_str(), nullptr, nullptr,
                                         nullptr, nullptr, nullptr, name) == FALSE) {
      Refused("replace", plan.name);
    }
    auto unknown = Configure(service, plan.name, automatic && (created || plan.start));
    ServiceHost::AddEventSource(plan.name, plan.program);
    return unknown;
  } catch (const std::runtime_error&) {
    if (created) DeleteService(Raw(service));
    throw;
  }
}

void ServiceManager::Start(const std::wstring& name) {
  const auto service = Open(name, SERVICE_START | SERVICE_QUERY_STATUS, "start");
  if (StartServiceW(Raw(service), 0, nullptr) == FALSE) {
    const DWORD error = GetLastError();
    if (error != ERROR_SERVICE_ALREADY_RUNNING) Refused("start", name, error);
  }
  const auto status = AwaitWhile(service, name, &IsStarting);
  if (status.dwCurrentState != SERVICE_RUNNING) {
    throw WindowsError("the service " + Utf8(name) + " exited during its start",
                       status.dwWin32ExitCode, "; see its log");
  }
}

void ServiceManager::Stop(const std::wstring& name) {
  const auto service = Open(name, SERVICE_STOP | SERVICE_QUERY_STATUS, "stop");
  // While it starts, a service rejects the control.
  const DWORD processId = AwaitWhile(service, name, &IsStarting).dwProcessId;
  const Platform::UniqueHandle process(processId == 0 ? nullptr
                                                      : OpenProcess(SYNCHRONIZE, FALSE, processId));
  SERVICE_STATUS last{};
  if (ControlService(Raw(service), SERVICE_CONTROL_STOP, &last) == FALSE) {
    const DWORD error = GetLastError();
    if (error == ERROR_SERVICE_NOT_ACTIVE) return;
    if (error != ERROR_SERVICE_CANNOT_ACCEPT_CTRL) Refused("stop", name, error);
  }
  // The service still reports running for a moment after accepting the control.
  const auto status =
      AwaitWhile(service, name, [](DWORD state) { return state != SERVICE_STOPPED; });
  // The process exits a moment later. Until then, its files cannot be replaced or deleted.
  if (status.dwCurrentState != SERVICE_STOPPED ||
      (process != nullptr &&
       WaitForSingleObject(process.get(), kProcessPatience) != WAIT_OBJECT_0)) {
    throw std::runtime_error("the service " + Utf8(name) +
                             " has not stopped yet; it is waiting for running commands");
  }
}

void ServiceManager::Remove(const std::wstring& name, Running running) {
  const auto service = Open(name, DELETE | SERVICE_QUERY_STATUS, "remove");
  // Windows would keep a running service, and its name, until the service stops.
  if (running == Running::Refused && StatusOf(service, name).dwCurrentState != SERVICE_STOPPED) {
    throw std::runtime_error("the service " + Utf8(name) + " is running; stop it first");
  }
  if (DeleteService(Raw(service)) == FALSE) Refused("remove", name);
  ServiceHost::RemoveEventSource(name);
}

std::optional<ServiceReport> ServiceManager::Query(const std::wstring& name) {
  const UniqueServiceHandle manager = OpenManager(SC_MANAGER_CONNECT);
  const UniqueServiceHandle service(
      OpenServiceW(Raw(manager), name.c_str(), SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG));
  if (service == nullptr && GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST) return std::nullopt;
  if (service == nullptr) Refused("query", name);
  const auto status = StatusOf(service, name);
  const auto stored = ConfigOf(service, name);
  const QUERY_SERVICE_CONFIGW& config = stored.front();
  ServiceHost::ServiceOptions options = ServiceHost::ReadParameters(name);
  if (options.module.empty()) AddEarlierOptions(config.lpBinaryPathName, options);
  return ServiceReport{.state = status.dwCurrentState,
                       .process = status.dwProcessId,
                       .exitCode = status.dwWin32ExitCode,
                       .automatic = config.dwStartType == SERVICE_AUTO_START,
                       .image = config.lpBinaryPathName,
                       .account = config.lpServiceStartName,
                       .options = std::move(options)};
}

void ServiceManager::Send(const std::wstring& name, std::uint32_t control) {
  const auto service = Open(name, SERVICE_USER_DEFINED_CONTROL, "send a code to");
  SERVICE_STATUS last{};
  if (ControlService(Raw(service), control, &last) == FALSE) Refused("send a code to", name);
}

std::uint32_t ProcessOfService(const std::wstring& name) {
  const auto report = ServiceManager().Query(name);
  if (!report) throw std::runtime_error("no service " + Utf8(name) + " is installed");
  if (report->process == 0)
    throw std::runtime_error("the service " + Utf8(name) + " is not running");
  return report->process;
}

}  // namespace Vx::Hosting::Tool
