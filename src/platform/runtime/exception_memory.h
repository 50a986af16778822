#pragma once

#include <cstddef>

// Memory for C++ exceptions when the heap is exhausted. The C++ runtime has a reserve for this, but
// guards it with a mutex that it allocates at first use. If that fails, the runtime throws because
// it could not lock, needs memory for that exception, and recurses until the stack overflows. So
// this module replaces the functions that allocate exceptions, with a static reserve that needs no
// lock.
//
// The runtime also allocates at each thread's first exception, and aborts the process if that
// fails. The storage that Windows gives every thread when it starts takes its place here.

namespace Vx::Platform {

// How many exceptions the reserve holds, and the size of the largest, in bytes. If heap and reserve
// are exhausted, the process ends (std::terminate).
inline constexpr std::size_t kReservedExceptions = 64;
inline constexpr std::size_t kLargestReservedException = 256;

}  // namespace Vx::Platform
