#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/thread.h"
#include "platform/unique_handle.h"
#include "servicehost/envelope.h"
#include "servicehost/pipe_caller.h"

namespace Vx::Host {

// The pipe of the service of this name.
std::wstring PipePath(const std::wstring& serviceName);

// Throws std::system_error for a text that is not a SID: it could hold entries of its own.
void CheckSids(const std::vector<std::wstring>& texts);

struct PipeOptions {
  std::wstring path;
  std::vector<std::wstring> allowed;  // accounts beside SYSTEM and the administrators, SIDs as text
  std::size_t clients = 64;           // served at a time; one more may wait
  std::size_t reserved = 4;           // of these, for SYSTEM and administrators
  std::size_t perAccount = 16;        // of these, for each other account
  std::function<PipeCaller(std::uint32_t processId)> identify = &CallerOf;
  std::chrono::milliseconds idle = std::chrono::minutes(10);   // without a command
  std::chrono::milliseconds stuck = std::chrono::seconds(30);  // without reading a result
  std::chrono::milliseconds retry = std::chrono::seconds(10);  // while the name is taken
};

// Serves commands over a named pipe, see docs/host.md. A thread per client. What one client sends,
// or fails to send or to read, reaches no other.
class PipeServer {
 public:
  // Runs one command as `client` (at most 64 characters). Called on any of the server's threads,
  // several at once. Must not throw.
  using Handler = std::function<ResultEnvelope(const CommandEnvelope&, const std::wstring& client)>;
  // Receives what an operator should know: `level` is INFO, WARNING or ERROR. Must not throw. A
  // view, because some messages report a want of memory.
  using Report = std::function<void(const wchar_t* level, std::wstring_view message)>;

  // Serves from now on. Throws std::system_error without a thread or an event, or when `allowed`
  // holds a text that is not a SID.
  PipeServer(PipeOptions settings, Handler run, Report tell);
  PipeServer(const PipeServer&) = delete;
  PipeServer& operator=(const PipeServer&) = delete;
  // Waits for the commands that run.
  ~PipeServer();

 private:
  struct Connection {
    Platform::UniqueHandle pipe;
    std::uint32_t processId = 0;
    PipeCaller caller;
    Platform::Thread thread;
    bool over = false;  // under the lock
  };

  void Listen() noexcept;
  Platform::UniqueHandle NewInstance(bool first) const;
  const wchar_t* WhyTurnedAway(const PipeCaller& caller) const;
  void Admit(Platform::UniqueHandle pipe);
  void Serve(Connection& connection) noexcept;
  void JoinThoseThatAreOver();
  bool WaitForRoom();

  const PipeOptions options;
  const Handler handler;
  const Report report;
  Platform::UniqueLocalMemory<void> security;
  Platform::UniqueHandle stop;
  Platform::UniqueHandle left;  // auto-reset: a connection is over
  std::mutex lock;
  std::list<Connection> connections;  // changed by the listener alone, as the next
  std::set<std::wstring> turnedAway;  // accounts that were reported and got no place since
  Platform::Thread listener;
};

// An access list that admits SYSTEM, the administrators and `allowed`, and denies remote users.
// The accounts of `allowed` may read and write, but not create an instance of the pipe.
std::wstring PipeAccess(const std::vector<std::wstring>& allowed);

}  // namespace Vx::Host
