#pragma once

#include <chrono>
#include <functional>

#include "platform/unique_handle.h"

namespace Vx::Platform {

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

  // The same for at most `length`. Returns whether the thread has ended; if not, it is still
  // joinable.
  bool JoinFor(std::chrono::milliseconds length);

  // Ends the call in which the thread waits for a file, if it does. The thread must be joinable.
  void CancelIo() noexcept;

 private:
  UniqueHandle handle;
};

// Starts `body` on a detached thread. Throws like the constructor of Thread.
void StartDetached(std::function<void()> body);

}  // namespace Vx::Platform
