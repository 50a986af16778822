#pragma once

#include <cstddef>
#include <functional>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// The address space that a worker reserves for its stack, in bytes, instead of what the host's
// program asks for, so that a thousand deliveries at once fit. At least five times what the deepest
// path needs, which is the check of a signature and the start of the program: 72 KiB under the
// emulator (worker_stack_test.cpp). The rest is for Windows' own libraries and for the security
// products that hook them, which are not measured. Addresses cost little.
inline constexpr std::size_t kWorkerStack = std::size_t{1} << 20;

// Creates threads of the operating system. Fault tests override this operation.
class Threads {
 public:
  virtual ~Threads() = default;

  // Starts a thread that runs `body` once and then ends. `body` does not throw. The error is the
  // C runtime's errno value.
  virtual Result<UniqueHandle> Start(std::function<void()> body) = 0;
};

// A thread that runs under the machine (see machine.h) of the code that started it. The clock of
// that machine counts it from the constructor on. The thread keeps this module loaded until it has
// ended.
//
// Like std::thread, but over _beginthreadex, because a detached std::thread of this runtime can
// lose its callable. A Thread that is still joinable when it is destroyed or replaced ends the
// process.
class Thread {
 public:
  Thread() = default;

  // Starts `body`, which must not throw, because each worker has its own boundary. Throws
  // std::system_error (resource_unavailable_try_again) when no thread can be created.
  explicit Thread(std::function<void()> body);

  Thread(Thread&& other) noexcept = default;
  Thread& operator=(Thread&& other) noexcept;
  ~Thread();

  bool Joinable() const noexcept { return handle != nullptr; }

  // Lets the thread run on its own. Throws std::system_error (invalid_argument) if it is not
  // joinable.
  void Detach();

  // Blocks until the thread has ended. Throws like Detach.
  void Join();

 private:
  UniqueHandle handle;
};

// Starts `body` on a detached thread. Throws like the constructor of Thread.
void StartDetached(std::function<void()> body);

}  // namespace Vx::Platform
