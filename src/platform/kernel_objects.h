#pragma once

#include <atomic>
#include <string>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// Kernel mutexes and events. Bounded waits on events go through the clock.
class KernelObjects {
 public:
  enum class Locked { Free, Abandoned };  // Abandoned: the owner exited without unlocking it

  virtual ~KernelObjects() = default;

  // Creates or opens the named mutex, not owned, with default security.
  virtual Result<UniqueHandle> MakeMutex(const std::wstring& name) = 0;

  // Waits for a mutex indefinitely.
  virtual Result<Locked> LockMutex(RawHandle mutex) = 0;
  virtual ErrorCode UnlockMutex(RawHandle mutex) = 0;

  // Creates an unsignaled manual-reset event, or opens the existing event of that name. An empty
  // name creates an unnamed event.
  virtual Result<UniqueHandle> MakeManualEvent(const std::wstring& name) = 0;

  virtual ErrorCode Signal(RawHandle event) = 0;
};

// Creates an unnamed manual-reset event. Returns null on failure.
UniqueHandle MakeUnnamedEvent();

// Decides whether to report that a name is taken. Any process can create an object of another kind
// under a name that this system uses, and every use of the name then fails until that object is
// gone. One report per use would flood the log. Thread-safe.
class TakenName {
 public:
  // Takes the error of MakeMutex or MakeManualEvent, or zero after a success. Returns true if the
  // name is taken and that has not been reported since the last success.
  bool IsNews(ErrorCode error) noexcept {
    constexpr ErrorCode kOtherKind = 6;  // ERROR_INVALID_HANDLE
    if (error == 0) reported = false;
    return error == kOtherKind && !reported.exchange(true);
  }

 private:
  std::atomic<bool> reported{false};
};

}  // namespace Vx::Platform
