#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "hosting/loaded_module.h"
#include "hosting/module_log.h"
#include "platform/thread.h"
#include "platform/unique_handle.h"
#include "servicehost/envelope.h"
#include "servicehost/service_log.h"

namespace Vx::Host {

// The start of the log line of a power broadcast that goes to the module. The code follows.
inline constexpr wchar_t kPowerForwarded[] = L"power event ";

// Through which channel Windows reported a power broadcast.
enum class PowerSource { ServiceControl, Notification };

// Passes each power broadcast on once. Windows reports a suspend and a resume as a service control
// and as a notification, and on some machines only as one of them.
class PowerFilter {
 public:
  // Whether `code`, reported at the tick count `now`, goes to the module. False for a code that the
  // other source reported within the last two seconds.
  bool Passes(std::uint32_t code, PowerSource source, std::uint64_t now);

 private:
  struct Last {
    PowerSource source;
    std::uint64_t time;
  };
  std::map<std::uint32_t, Last> passed;  // per code
};

// COM on the thread that makes this object, as the module needs it of its host: calls to other
// processes are made as the user that a thread acts as. Destroyed on the same thread, after the
// module.
class ComForModule {
 public:
  // A refusal of Windows is logged to `output`. The module works without it, but not as the user.
  explicit ComForModule(ServiceLog& output);
  ComForModule(const ComForModule&) = delete;
  ComForModule& operator=(const ComForModule&) = delete;
  ~ComForModule();

 private:
  bool entered;
};

// The part of a service host between Windows and the module: loads the module, forwards codes and
// commands, and destroys the service object before it unloads the module. Everything that reaches
// it from Windows comes through its functions, so a test sends codes the same way. Made and
// destroyed on one thread.
class HostLoop {
 public:
  struct Options {
    std::wstring module;         // full path
    bool modernStandby = false;  // this machine enters Modern Standby
  };

  // Loads the module and starts its service. `output` outlives this object. Throws
  // std::runtime_error, whose text advises the operator.
  HostLoop(const Options& options, ServiceLog& output);
  HostLoop(const HostLoop&) = delete;
  HostLoop& operator=(const HostLoop&) = delete;
  // Waits for the calls that run.
  ~HostLoop();

  // Any thread, several at once. Block while the module works.
  ResultEnvelope Execute(const CommandEnvelope& command, const std::wstring& client);
  // `reported` is the tick count at which Windows reported the code, by default now.
  void OnPower(std::uint32_t code, PowerSource source,
               std::optional<std::uint64_t> reported = std::nullopt);
  void OnSession(std::uint32_t code);

  // The machine enters or leaves Modern Standby. Sets or resets the standby event on a machine that
  // has Modern Standby, otherwise does nothing.
  enum class Standby { Entered, Left };
  void OnStandby(Standby change);

 private:
  void ResetStandby() noexcept;
  void AwaitSetup() noexcept;

  ServiceLog& log;
  const ComForModule com;  // before the module, which chooses otherwise
  Platform::UniqueHandle standbyEvent;
  Platform::UniqueHandle stop;
  LoadedModule module;
  ModuleLog moduleLog;  // between them: it has the first lines, and those of the service's end
  ServiceSession session;
  std::mutex filterLock;
  PowerFilter filter;
  Platform::Thread setupWatch;
};

// Whether this machine has Modern Standby (the AoAc power capability).
bool HasModernStandby();

}  // namespace Vx::Host
