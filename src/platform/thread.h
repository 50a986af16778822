#pragma once

#include <functional>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// Creates operating-system threads; the one operation that a fault test overrides.
class Threads {
 public:
  virtual ~Threads() = default;

  // Starts a thread that runs `body` once and then ends. `body` does not throw. The error is the
  // C runtime's errno value.
  virtual Result<UniqueHandle> Start(std::function<void()> body) = 0;
};

// A thread that runs under the machine (see machine.h) of the code that started it, is counted by
// that machine's clock from this call on, and keeps this module loaded until it has ended.
//
// Like std::thread, but over _beginthreadex: a detached std::thread of this runtime can lose its
// callable. A Thread that is still joinable when it is destroyed or replaced ends the process.
class Thread {
 public:
  Thread() = default;

  // Starts `body`, which must not throw: each worker has its own boundary. Throws std::system_error
  // (resource_unavailable_try_again) when no thread can be made.
  explicit Thread(std::function<void()> body);

  Thread(Thread&& other) noexcept = default;
  Thread& operator=(Thread&& other) noexcept;
  ~Thread();

  bool Joinable() const noexcept { return handle != nullptr; }

  // Lets the thread go on alone. Throws std::system_error (invalid_argument) when not joinable.
  void Detach();

  // Blocks until the thread has ended. Throws as Detach does.
  void Join();

 private:
  UniqueHandle handle;
};

// Starts `body` on a detached thread; errors as Thread's constructor.
void StartDetached(std::function<void()> body);

}  // namespace Vx::Platform
