#pragma once

#include <atomic>
#include <string>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// Mutexes and events of the kernel. Bounded waits on events go through the clock.
class KernelObjects {
 public:
  // How a mutex was found.
  enum class Locked { Free, Abandoned };  // its holder ended without unlocking it

  virtual ~KernelObjects() = default;

  // Creates or opens the named mutex, not owned, with default security.
  virtual Result<UniqueHandle> MakeMutex(const std::wstring& name) = 0;

  // Waits for a mutex without limit.
  virtual Result<Locked> LockMutex(RawHandle mutex) = 0;
  virtual ErrorCode UnlockMutex(RawHandle mutex) = 0;

  // Creates a manual-reset event that is not signalled, or opens the existing event of that name.
  // An empty name makes an unnamed event.
  virtual Result<UniqueHandle> MakeManualEvent(const std::wstring& name) = 0;

  virtual ErrorCode Signal(RawHandle event) = 0;
};

// Decides whether to report that a name is taken. Any process of the machine can give an object of
// another kind a name that this system uses, and every use of the name then fails until that object
// is gone. A report per use would hide it. Any thread.
class TakenName {
 public:
  // Takes the result of MakeMutex or MakeManualEvent: its error, or zero after a success. Returns
  // true if the name has been taken since the last success and that has not been reported yet.
  bool IsNews(ErrorCode error) noexcept {
    constexpr ErrorCode kOtherKind = 6;  // ERROR_INVALID_HANDLE
    if (error == 0) reported = false;
    return error == kOtherKind && !reported.exchange(true);
  }

 private:
  std::atomic<bool> reported{false};
};

}  // namespace Vx::Platform
