#pragma once

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

}  // namespace Vx::Platform
