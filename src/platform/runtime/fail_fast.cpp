#include "platform/runtime/fail_fast.h"

#include <exception>

#include <windows.h>

namespace Vx::Platform {

void FailFast() noexcept {
  // Bypasses all exception handlers, as documented. A null record reports the caller's address.
  RaiseFailFastException(nullptr, nullptr, FAIL_FAST_GENERATE_EXCEPTION_ADDRESS);
  __builtin_trap();  // not reached, but the compiler does not know that the call never returns
}

void FailFastOnTerminate() noexcept {
  std::set_terminate(&FailFast);
}

}  // namespace Vx::Platform
