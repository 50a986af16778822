#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "servicehost/service_parameters.h"

namespace Vx::Host {

inline constexpr char kDefaultServiceName[] = "OrvaneService";

// One service as it is installed.
struct ServicePlan {
  std::wstring name;
  std::wstring program;  // full path of OrvaneHost.exe
  std::wstring module;   // full path
  enum class Start { Automatic, Demand } start = Start::Automatic;
  std::vector<std::wstring> allowed = {};  // SIDs whose accounts may use the pipe
  bool development = false;                // takes codes for tests, see ServiceProcess
  bool replaces = false;                   // an installed service of this name, if there is one
};

// The command line of the service: the quoted full path of its program and the service's name.
std::wstring ImagePath(const ServicePlan& plan);

// The privileges that the service's process keeps, as Windows takes the list: each text with its
// terminator, and one more at the end.
std::wstring RequiredPrivileges();

// What the service manager knows of a service. The numbers are those of Windows.
struct ServiceReport {
  std::uint32_t state = 0;    // SERVICE_RUNNING and so on
  std::uint32_t process = 0;  // 0 unless it runs
  std::uint32_t exitCode = 0;
  bool automatic = false;
  std::wstring image;
  std::wstring account;
  ServiceOptions options;  // without a module: an earlier version has installed it
};

struct ServiceHandleCloser {
  void operator()(void* handle) const noexcept;  // CloseServiceHandle
};
using UniqueServiceHandle = std::unique_ptr<void, ServiceHandleCloser>;

// The service manager of this machine. One thread. Every function throws std::runtime_error, whose
// text advises the administrator.
class ServiceManager {
 public:
  // Registers a service of LocalSystem in a process of its own, with failure actions, a service SID
  // and the required privileges alone. Undone if Windows refuses a part, except of a service that
  // is replaced: that one has the new command line and parameters from its next start on, also one
  // of an earlier version, whose command line had the parameters. Returns the settings
  // that this system does not know, which is none on Windows.
  std::vector<std::string> Install(const ServicePlan& plan);

  // Starts the service, or asks it to stop, and waits until it has and its process is gone. Done at
  // once if it already has.
  void Start(const std::wstring& name);
  void Stop(const std::wstring& name);

  // Removes a service that has stopped.
  void Remove(const std::wstring& name);

  // Nothing if no service has that name.
  std::optional<ServiceReport> Query(const std::wstring& name);

  // Sends a user-defined control code, 128 to 255.
  void Send(const std::wstring& name, std::uint32_t control);
};

// The process of the running service of this name. Throws as above when it does not run.
std::uint32_t ProcessOfService(const std::wstring& name);

}  // namespace Vx::Host
