#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "servicehost/service_parameters.h"

namespace Vx::Hosting::Tool {

inline constexpr char kDefaultServiceName[] = "OrvaneService";

struct ServicePlan {
  std::wstring name;
  std::wstring program;  // full path of OrvaneHost.exe
  std::wstring module;   // full path
  enum class Start { Automatic, Demand };
  std::optional<Start> start = {};         // default: a replaced service's own, else Automatic
  std::vector<std::wstring> allowed = {};  // SIDs of accounts that may use the pipe
  bool development = false;                // accepts test codes, see ServiceProcess
  bool replaces = false;                   // replace an installed service of this name
};

// Returns the service's command line: its program's full path in quotes, and the service's name.
std::wstring ImagePath(const ServicePlan& plan);

// The service manager's information about a service, with Windows' constants.
struct ServiceReport {
  std::uint32_t state = 0;    // SERVICE_RUNNING etc.
  std::uint32_t process = 0;  // 0 unless running
  std::uint32_t exitCode = 0;
  bool automatic = false;
  std::wstring image;
  std::wstring account;
  ServiceHost::ServiceOptions options;  // `module` is empty if an earlier version wrote them
};

struct ServiceHandleCloser {
  void operator()(void* handle) const noexcept;  // CloseServiceHandle
};
using UniqueServiceHandle = std::unique_ptr<void, ServiceHandleCloser>;

// This machine's service manager. Use from one thread. Throws std::runtime_error with advice.
class ServiceManager {
 public:
  // Registers a LocalSystem service in its own process, with failure actions, a service SID and
  // only the required privileges. If Windows rejects a setting, deletes a new service. A replaced
  // service, even of an earlier version, keeps the changes made so far, which take effect at its
  // next start. It must already run as LocalSystem, and receives the owner and access list of a new
  // one. Returns the settings that this system does not support. Windows supports all.
  std::vector<std::string> Install(const ServicePlan& plan);

  // Start or stop the service, and wait until it is running or its process has exited. Return
  // immediately if the service is already in that state.
  void Start(const std::wstring& name);
  void Stop(const std::wstring& name);

  // Removes a service. If it is running, fails or marks it for removal once it stops.
  enum class Running { Refused, Marked };
  void Remove(const std::wstring& name, Running running = Running::Refused);

  // Returns nothing if no service has that name.
  std::optional<ServiceReport> Query(const std::wstring& name);

  // Sends a user-defined control code, 128 to 255.
  void Send(const std::wstring& name, std::uint32_t control);
};

// Returns the ID of the service's process. Throws std::runtime_error if it is not running.
std::uint32_t ProcessOfService(const std::wstring& name);

}  // namespace Vx::Hosting::Tool
