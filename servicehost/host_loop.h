#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "hosting/loaded_module.h"
#include "platform/thread.h"
#include "platform/unique_handle.h"
#include "servicehost/envelope.h"
#include "servicehost/power_notifications.h"
#include "servicehost/service_log.h"

namespace Vx::Hosting::ServiceHost {

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
  const std::shared_ptr<void> com;  // before the module, which would set up COM without cloaking
  Platform::UniqueHandle standbyEvent;
  Platform::UniqueHandle stop;
  LoadedModule module;
  ModuleLog moduleLog;  // declared here to receive the module's first and last lines
  ServiceSession session;
  Platform::Thread setupWatch;
  std::optional<PowerNotifications> display;  // only with Modern Standby
};

}  // namespace Vx::Hosting::ServiceHost
