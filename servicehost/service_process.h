#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/thread.h"
#include "platform/unique_handle.h"
#include "servicehost/host_loop.h"
#include "servicehost/service_log.h"
#include "servicehost/service_parameters.h"

namespace Vx::Host {

// The user-defined controls that stand for an event of a service under development. Codes up to 63.
constexpr std::uint32_t PowerControl(std::uint32_t code) {
  return 128 + code;
}
constexpr std::uint32_t SessionControl(std::uint32_t code) {
  return 192 + code;
}

// What the service reports of itself, in the numbers of Windows.
struct ServiceStatus {
  std::uint32_t state = 0;       // SERVICE_START_PENDING and so on
  std::uint32_t checkpoint = 0;  // grows while it starts or stops
  std::uint32_t exitCode = 0;
};

// The service manager as the service sees it.
class StatusSink {
 public:
  virtual ~StatusSink() = default;

  // Any thread, one call at a time. The process may end after SERVICE_STOPPED was reported.
  virtual void Report(const ServiceStatus& state) noexcept = 0;
};

// Forwards the codes of the service manager to the module, in their order, on a thread of its own:
// the module may take minutes for one, and the manager waits for its handler. When too many wait,
// the oldest that came again later is dropped. So the last report of each code stays, and standby
// and log-on end as Windows reported them.
class CodeQueue {
 public:
  static constexpr std::size_t kLongest = 1024;  // more than the codes that Windows has

  // Both outlive this object. `output` receives one warning per overflow with the number of codes
  // that it cost.
  CodeQueue(HostLoop& loop, ServiceLog& output, std::size_t limit = kLongest);
  CodeQueue(const CodeQueue&) = delete;
  CodeQueue& operator=(const CodeQueue&) = delete;
  // Forwards what waits first.
  ~CodeQueue();

  // Any thread. Without memory for it, the service drops the code.
  void AddPower(std::uint32_t code, PowerSource source) noexcept;
  void AddSession(std::uint32_t code) noexcept;

 private:
  struct Code {
    bool power;
    std::uint32_t code;
    PowerSource source;
    std::uint64_t reported;  // the tick count then: the module may take longer than the reports
  };

  void Add(bool power, std::uint32_t code, PowerSource source) noexcept;
  void DropOne();
  void Report(std::uint64_t count) noexcept;
  void Run() noexcept;

  HostLoop& host;
  ServiceLog& log;
  const std::size_t capacity;
  std::mutex lock;
  std::condition_variable changed;
  std::deque<Code> codes;     // under the lock, as the next three
  std::uint64_t dropped = 0;  // since the last warning
  bool forwarding = false;
  bool ending = false;
  Platform::Thread worker;
};

// One run of the service, between the service manager and the module.
class ServiceProcess {
 public:
  // `places` receive the log. Throws std::system_error without an event.
  ServiceProcess(ServiceOptions settings, std::vector<std::unique_ptr<LogTarget>> places,
                 StatusSink& manager);

  // Runs until Control receives a stop or a pre-shutdown. Reports each state, last SERVICE_STOPPED.
  void Run() noexcept;

  // What the service manager sends: the return value is that of its handler. Any thread, before,
  // during and after Run. Blocks for at most two seconds, which a suspend takes to reach the module
  // before the machine sleeps.
  std::uint32_t Control(std::uint32_t control, std::uint32_t event) noexcept;

  // The controls that a running service accepts, SERVICE_ACCEPT_ bits.
  static std::uint32_t Accepted();

 private:
  class Published;

  void Serve();
  void Report(std::uint32_t state, std::uint32_t exitCode = 0) noexcept;

  const ServiceOptions options;
  StatusSink& sink;
  ServiceLog log;
  Platform::UniqueHandle stop;
  std::mutex stateLock;
  ServiceStatus reported;  // under the lock above
  std::mutex queueLock;
  CodeQueue* queue = nullptr;  // under the lock above; null while no module runs
};

// The installed service of this name, a service name, which the manager starts in this process.
// Returns when it has ended, or at once with ERROR_FAILED_SERVICE_CONTROLLER_CONNECT (1063), before
// anything else was done, when another program started the process.
std::uint32_t RunUnderManager(const std::wstring& name);

}  // namespace Vx::Host
