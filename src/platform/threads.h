#pragma once

#include <cstddef>
#include <functional>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// The address space, in bytes, reserved for a worker's stack instead of the host's default, so that
// a thousand concurrent deliveries fit. At least five times what the deepest path needs (the check
// of a signature and the start of the program): 72 KiB under the emulator (worker_stack_test.cpp).
// The rest is for Windows' own libraries and for security products that hook them, which are not
// measured. Addresses cost little.
inline constexpr std::size_t kWorkerStack = std::size_t{1} << 20;

// Creates operating-system threads. Fault tests override it.
class Threads {
 public:
  virtual ~Threads() = default;

  // Starts a thread that runs `body`, which must not throw. The error is the C runtime's errno
  // value.
  virtual Result<UniqueHandle> Start(std::function<void()> body) = 0;

  // Cancels the call in which `thread` waits for a file, if any. It fails with
  // ERROR_OPERATION_ABORTED.
  virtual void CancelIo(RawHandle /*thread*/) {}
};

}  // namespace Vx::Platform
