#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/thread.h"
#include "platform/unique_handle.h"
#include "servicehost/host_loop.h"
#include "servicehost/service_log.h"
#include "servicehost/service_parameters.h"

struct _SERVICE_STATUS;  // NOLINT(bugprone-reserved-identifier,cert-*): Windows' own name

namespace Vx::Hosting::ServiceHost {

// User-defined controls that simulate events for a service under development. To each, add the
// event's code, at most 63.
inline constexpr std::uint32_t kPowerControl = 128;
inline constexpr std::uint32_t kSessionControl = 192;

// Reports a SERVICE_STATUS to the service manager. Called on any thread, one call at a time. The
// process may be terminated once SERVICE_STOPPED is reported.
using StatusReport = std::function<void(_SERVICE_STATUS& status)>;

// Forwards codes from the service manager to the module, in order, on its own thread, because the
// module may take minutes to handle one and the manager waits for Control to return. On overflow,
// drops the oldest code that occurs again later in the queue, so that the module still receives the
// latest state of standby and logon.
class CodeQueue {
 public:
  static constexpr std::size_t kLongest = 1024;  // more than the number of codes that Windows has

  // Both must outlive this object. `output` receives one warning per overflow, with the number of
  // codes lost.
  CodeQueue(HostLoop& loop, ServiceLog& output, std::size_t limit = kLongest);
  CodeQueue(const CodeQueue&) = delete;
  CodeQueue& operator=(const CodeQueue&) = delete;
  // Forwards the queued codes first.
  ~CodeQueue();

  struct Code {
    void (HostLoop::*forward)(std::uint32_t code);
    std::uint32_t code;
    bool operator==(const Code&) const = default;
  };

  // May be called on any thread. A code is dropped if memory runs out. For a suspend, blocks until
  // the module has handled it, but for at most two seconds.
  void Add(Code code) noexcept;

 private:
  void DropOne();
  void Run() noexcept;

  HostLoop& host;
  ServiceLog& log;
  const std::size_t capacity;
  std::mutex lock;
  std::condition_variable changed;
  std::deque<Code> codes;     // guarded by `lock`, like the next three
  std::uint64_t dropped = 0;  // since the last warning
  bool forwarding = false;
  bool ending = false;
  Platform::Thread worker;
};

// One run of the service. Connects the service manager to the module.
class ServiceProcess {
 public:
  // `places` are the targets of the log. Throws std::system_error if no event can be created.
  ServiceProcess(ServiceOptions settings, std::vector<LogTarget> places, StatusReport manager);

  // Runs until Control receives a stop or pre-shutdown. Reports SERVICE_STOPPED last.
  void Run() noexcept;

  // Handles a control from the service manager. Returns the code that the handler must return. May
  // be called on any thread, before, during and after Run. Blocks for at most two seconds, so that
  // a suspend reaches the module before the machine sleeps.
  std::uint32_t Control(std::uint32_t control, std::uint32_t event) noexcept;

 private:
  void Serve();
  void Publish(std::unique_ptr<CodeQueue> next);
  void Report(std::uint32_t state, std::uint32_t specificCode = 0) noexcept;

  const ServiceOptions options;
  const StatusReport report;
  ServiceLog log;
  Platform::UniqueHandle stop;
  std::mutex stateLock;
  std::uint32_t reported = 0;    // the last state; guarded by `stateLock`, like the next one
  std::uint32_t checkpoint = 0;  // increases while starting or stopping
  std::mutex queueLock;
  std::unique_ptr<CodeQueue> queue;  // guarded by `queueLock`; null while no module runs
};

// Runs the installed service `name`, a valid service name, in the process that the service manager
// started for it. Returns when the service has stopped. If another program started the process,
// does nothing and returns ERROR_FAILED_SERVICE_CONTROLLER_CONNECT (1063).
std::uint32_t RunUnderManager(const std::wstring& name);

}  // namespace Vx::Hosting::ServiceHost
