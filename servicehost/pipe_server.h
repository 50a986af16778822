#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/thread.h"
#include "platform/unique_handle.h"
#include "servicehost/accounts.h"
#include "servicehost/envelope.h"

namespace Vx::Hosting::ServiceHost {

// Returns the path of the pipe that the service `serviceName` uses.
std::wstring PipePath(const std::wstring& serviceName);

struct PipeOptions {
  std::wstring path;
  std::vector<std::wstring> allowed;  // see SidsOf; accounts besides SYSTEM and administrators
  std::size_t clients = 64;           // served at a time; one more can wait
  std::size_t reserved = 4;           // of these, reserved for SYSTEM and administrators
  std::size_t perAccount = 16;        // of these, the maximum for any other account
  std::function<PipeCaller(std::uint32_t processId)> identify = &CallerOf;
  std::chrono::milliseconds idle = std::chrono::minutes(10);   // limit for the next command
  std::chrono::milliseconds stuck = std::chrono::seconds(30);  // limit for reading a result
  std::chrono::milliseconds quiet = std::chrono::minutes(1);   // between warnings of one kind
  std::chrono::milliseconds retry = std::chrono::seconds(10);  // between attempts to open the pipe
};

// Serves commands over a named pipe (see docs/host.md), with one thread per client. No client can
// disturb another by what it sends or by failing to send or read.
class PipeServer {
 public:
  // Runs one command as `client` (at most 64 characters). Called concurrently. Must not throw.
  using Handler = std::function<CommandResult(const CommandEnvelope&, const std::wstring& client)>;
  // Receives messages for the operator. `level` is INFO, WARNING or ERROR. Must not throw. The
  // message is a view, so that no memory is needed to report that memory ran out.
  using Report = std::function<void(const wchar_t* level, std::wstring_view message)>;

  // Starts serving. Throws std::system_error on failure, and whatever SidsOf throws.
  PipeServer(PipeOptions settings, Handler run, Report tell);
  PipeServer(const PipeServer&) = delete;
  PipeServer& operator=(const PipeServer&) = delete;
  // Waits for running commands.
  ~PipeServer();

 private:
  struct Connection {
    Platform::UniqueHandle pipe;
    PipeCaller caller;
    Platform::Thread thread;
    std::atomic<bool> over{false};
  };

  // The most recent warning of one kind.
  struct Warning {
    const wchar_t* why = nullptr;
    std::uint64_t next = 0;  // tick count before which further ones are only counted
    std::uint64_t more = 0;
  };

  void Listen() noexcept;
  Platform::UniqueHandle NewInstance(bool first) const;
  PipeCaller Identify(Platform::RawHandle pipe) const;
  const wchar_t* WhyTurnedAway(const PipeCaller& caller) const;
  void Admit(Platform::UniqueHandle pipe, PipeCaller caller);
  void Serve(Connection& connection) noexcept;
  // Reports a client's fault, or only counts it if one like it was reported recently. Any thread.
  void Warn(const wchar_t* why, const std::wstring& who = {});
  void JoinThoseThatAreOver();
  bool WaitForRoom();

  const PipeOptions options;
  const Handler handler;
  const Report report;
  Platform::UniqueLocalMemory<void> security;
  Platform::UniqueHandle stop;
  Platform::UniqueHandle left;  // auto-reset: signaled when a connection ends
  std::mutex lock;
  std::array<Warning, 8> warnings;    // guarded by `lock`; more than there are kinds
  std::list<Connection> connections;  // modified only by the listener thread
  Platform::Thread listener;
};

}  // namespace Vx::Hosting::ServiceHost
