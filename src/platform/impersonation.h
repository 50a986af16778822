#pragma once

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

// Runs the calling thread as another user for the life of this object.
//
// Belongs to one thread: made, used and destroyed there. What is waited for meanwhile has a bound.
// The operation that uses it logs a failed revert in its own words: it calls Revert() and looks at
// the answer. The destructor reverts only what an exception left behind, and reports through
// `onRevertFailure`.
class Impersonation {
 public:
  using RevertFailed = void (*)();

  // Borrows `token` for the call only. A refusal is reported by Error(), and then nothing has to be
  // reverted.
  explicit Impersonation(RawHandle token, RevertFailed onRevertFailure = nullptr);
  Impersonation(const Impersonation&) = delete;
  Impersonation& operator=(const Impersonation&) = delete;
  ~Impersonation();

  explicit operator bool() const noexcept { return active; }
  ErrorCode Error() const noexcept { return error; }

  // Ends the impersonation now; zero or the error. A failed revert is not tried again.
  ErrorCode Revert();

 private:
  bool active = false;
  ErrorCode error = 0;
  RevertFailed revertFailed;
};

}  // namespace Vx::Platform
