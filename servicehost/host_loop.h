#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "hosting/loaded_module.h"
#include "platform/thread.h"
#include "platform/unique_handle.h"
#include "servicehost/envelope.h"
#include "servicehost/power_notifications.h"
#include "servicehost/service_log.h"

namespace Vx::Hosting::ServiceHost {

// The start of the log line for a power broadcast forwarded to the module. The code follows.
inline constexpr wchar_t kPowerForwarded[] = L"power event ";

// Initializes COM on the constructing thread with dynamic cloaking, which the module needs from its
// host: calls to other processes then use the identity of the user that the thread impersonates.
// Destroy it on the same thread, after unloading the module.
class ComForModule {
 public:
  // Logs a failure to `output`. The module then works, but its calls do not use the user's
  // identity.
  explicit ComForModule(ServiceLog& output);
  ComForModule(const ComForModule&) = delete;
  ComForModule& operator=(const ComForModule&) = delete;
  ~ComForModule();

 private:
  bool entered;
};

// Connects Windows and clients to the module. Loads the module, forwards codes and commands, and
// destroys the service object before unloading the module. Power and session codes arrive only
// through its functions, so tests can send them too. Construct and destroy it on one thread.
class HostLoop {
 public:
  struct Options {
    std::wstring module;         // full path
    bool modernStandby = false;  // the machine supports Modern Standby
  };

  // Loads the module and starts its service. `output` must outlive this object. Throws
  // std::runtime_error with advice for the operator.
  HostLoop(const Options& options, ServiceLog& output);
  HostLoop(const HostLoop&) = delete;
  HostLoop& operator=(const HostLoop&) = delete;
  // Blocks until running calls have returned.
  ~HostLoop();

  // May be called concurrently on any thread. They block until the module returns.
  CommandResult Execute(const CommandEnvelope& command, const std::wstring& client);
  void OnPower(std::uint32_t code);
  void OnSession(std::uint32_t code);

 private:
  void WatchDisplay();
  void ResetStandby() noexcept;
  void AwaitSetup() noexcept;

  ServiceLog& log;
  const ComForModule com;  // before the module, which would set up COM without cloaking
  Platform::UniqueHandle standbyEvent;
  Platform::UniqueHandle stop;
  LoadedModule module;
  ModuleLog moduleLog;  // declared here to receive the module's first and last lines
  ServiceSession session;
  Platform::Thread setupWatch;
  std::optional<PowerNotifications> display;  // only with Modern Standby
};

}  // namespace Vx::Hosting::ServiceHost
