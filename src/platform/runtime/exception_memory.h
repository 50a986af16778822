#pragma once

#include <cstddef>

// Memory for C++ exceptions when the heap is exhausted. The C++ runtime has a reserve for this, but
// guards it with a mutex that it allocates at first use. If that fails, the runtime throws because
// it could not acquire the lock, needs memory for that exception, and recurses until the stack
// overflows. So this module replaces the functions that allocate exceptions, and gives them a
// static reserve that needs no lock.
//
// The runtime also allocates memory at each thread's first exception, and aborts the process if
// that fails. This module uses the storage that Windows allocates when a thread starts.

namespace Vx::Platform {

// The number of exceptions that fit into the reserve, and the size of the largest, in bytes. If
// both the heap and the reserve are exhausted, std::terminate is called.
inline constexpr std::size_t kReservedExceptions = 64;
inline constexpr std::size_t kLargestReservedException = 256;

}  // namespace Vx::Platform
