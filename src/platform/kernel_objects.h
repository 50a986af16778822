#pragma once

#include <string>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// Mutexes and events of the kernel. Bounded waits on events go through the clock.
class KernelObjects {
 public:
  virtual ~KernelObjects() = default;

  // Creates or opens the named mutex, not owned, with default security.
  virtual Result<UniqueHandle> MakeMutex(const std::wstring& name) = 0;

  // Waits for a mutex without limit. An abandoned mutex counts as acquired. Returns zero or the
  // error.
  virtual ErrorCode LockMutex(RawHandle mutex) = 0;
  virtual ErrorCode UnlockMutex(RawHandle mutex) = 0;

  // Creates a manual-reset event that is not signalled, or opens the existing event of that name.
  // An empty name makes an unnamed event.
  virtual Result<UniqueHandle> MakeManualEvent(const std::wstring& name) = 0;

  virtual ErrorCode Signal(RawHandle event) = 0;
};

}  // namespace Vx::Platform
