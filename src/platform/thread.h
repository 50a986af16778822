#pragma once

#include <chrono>
#include <cstddef>
#include <functional>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// Bytes of address space reserved for a worker's stack instead of the host's default, so that a
// thousand concurrent deliveries fit. At least five times the 72 KiB that the deepest path needs
// under the emulator: checking a signature and starting the program (worker_stack_test.cpp). The
// rest is for Windows' own libraries and the security products that hook them.
inline constexpr std::size_t kWorkerStack = std::size_t{1} << 20;

// Creates operating-system threads. Fault tests override it.
class Threads {
 public:
  virtual ~Threads() = default;

  // `body` must not throw. The error is the C runtime's errno value.
  virtual Result<UniqueHandle> Start(std::function<void()> body) = 0;

  // Cancels the blocking file operation of `thread`, if any, with ERROR_OPERATION_ABORTED.
  virtual void CancelIo(RawHandle /*thread*/) {}
};

// A thread that runs under its creator's machine (see machine.h). That machine's clock counts it
// from the constructor on. The thread keeps this module loaded until it ends.
//
// Uses _beginthreadex, because a detached std::thread of this runtime can lose its callable. As
// with std::thread, destroying or replacing a joinable Thread terminates the process.
class Thread {
 public:
  Thread() = default;

  // Starts `body`, which must not throw. Throws std::system_error (EAGAIN) if no thread starts.
  explicit Thread(std::function<void()> body);

  Thread(Thread&& other) noexcept = default;
  Thread& operator=(Thread&& other) noexcept;
  ~Thread();

  bool Joinable() const noexcept { return handle != nullptr; }

  // Throws std::system_error (invalid_argument) if the thread is not joinable, like Join.
  void Detach();

  void Join();

  // Joins the thread if it ends within `length`. Returns whether it did. If not, it stays joinable.
  bool JoinFor(std::chrono::milliseconds length);

  // Cancels the thread's blocking file operation, if any. The thread must be joinable.
  void CancelIo() noexcept;

 private:
  UniqueHandle handle;
};

// Starts `body` on a detached thread. Throws like the constructor of Thread.
void StartDetached(std::function<void()> body);

}  // namespace Vx::Platform
