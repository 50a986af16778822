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

  // Ends the call in which `thread` waits for a file, if it does: the call fails with
  // ERROR_OPERATION_ABORTED.
  virtual void CancelIo(RawHandle /*thread*/) {}
};

}  // namespace Vx::Platform
