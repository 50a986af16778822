#pragma once

#include <string>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// Mutexes and events of the kernel. Waits on events with a length go through the clock.
class KernelObjects {
 public:
  virtual ~KernelObjects() = default;

  // Makes or opens the named mutex, not owned, with default security.
  virtual Result<UniqueHandle> MakeMutex(const std::wstring& name) = 0;

  // Waits without limit for a mutex; an abandoned one counts as owned. Zero or the error.
  virtual ErrorCode LockMutex(RawHandle mutex) = 0;
  virtual ErrorCode UnlockMutex(RawHandle mutex) = 0;

  // Makes (or, with a name, makes or opens) a manual-reset event that is not signalled.
  virtual Result<UniqueHandle> MakeManualEvent(const std::wstring& name) = 0;

  virtual ErrorCode Signal(RawHandle event) = 0;
};

}  // namespace Vx::Platform
