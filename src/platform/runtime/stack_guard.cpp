#include "platform/runtime/stack_guard.h"

#include <windows.h>

// The symbols that code compiled with -fstack-protector and _FORTIFY_SOURCE needs. The toolchain's
// own library opens a cryptographic provider in a constructor, so loading this module would load
// another library under the loader lock.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the compiler's names
namespace {

// The documented fail-fast: no handler runs, and Windows Error Reporting receives the code.
[[noreturn]] void FastFail(unsigned code) {
  asm volatile("int $0x29" : : "c"(code));
  __builtin_unreachable();
}

}  // namespace

extern "C" {

// Replaced by Seed before any function other than a constructor runs.
std::uintptr_t __stack_chk_guard = 0x2B992DDFA200;

[[noreturn]] void __stack_chk_fail() {
  FastFail(FAST_FAIL_STACK_COOKIE_CHECK_FAILURE);
}

// Called by the checked functions of _FORTIFY_SOURCE.
[[noreturn]] void __chk_fail() {
  FastFail(FAST_FAIL_RANGE_CHECK_FAILURE);
}

}  // extern "C"

namespace {

// A zero in the lowest byte stops an overflow that copies a string.
constexpr std::uintptr_t kTextStopper = ~std::uintptr_t{0xFF};

// Runs as the first constructor and uses the same sources as Microsoft's compiler: time, process,
// thread, ticks and the performance counter. Calls only kernel32, which is already loaded. Not
// protected itself, because the guard changes while it runs.
__attribute__((constructor(101), no_stack_protector)) void Seed() {
  FILETIME now;
  LARGE_INTEGER counter;
  GetSystemTimeAsFileTime(&now);
  QueryPerformanceCounter(&counter);
  std::uintptr_t seed = (std::uintptr_t{now.dwHighDateTime} << 32) | now.dwLowDateTime;
  seed ^= (std::uintptr_t{GetCurrentProcessId()} << 32) | GetCurrentThreadId();
  seed ^= static_cast<std::uintptr_t>(GetTickCount64()) << 16;
  seed ^= static_cast<std::uintptr_t>(counter.QuadPart) << 24;
  seed ^= reinterpret_cast<std::uintptr_t>(&counter) << 8;
  __stack_chk_guard = seed & kTextStopper;
}

}  // namespace
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
