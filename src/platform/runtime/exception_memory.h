#pragma once

#include <cstddef>

// Memory for C++ exceptions while the heap has none.
//
// The C++ runtime has a reserve for this case, but guards it with a mutex that is allocated at its
// first use. Without memory that allocation fails, the runtime throws because it could not lock,
// needs memory for that exception, and so on until the stack ends. This module therefore replaces
// the functions that allocate exceptions. Their reserve is static and needs no lock.
//
// The runtime also allocates at the first exception of each thread, and aborts the process if that
// fails. Here the storage that Windows gives every thread when it starts takes its place.

namespace Vx::Platform {

// How many exceptions the reserve holds at a time, and the largest object that it holds, in bytes.
// Without heap and reserve the process ends (std::terminate).
inline constexpr std::size_t kReservedExceptions = 64;
inline constexpr std::size_t kLargestReservedException = 256;

}  // namespace Vx::Platform
