#pragma once

#include <memory>

namespace Vx::Platform {

// A Windows HANDLE, spelled without <windows.h>. A RawHandle in a signature is borrowed.
using RawHandle = void*;

// Closers preserve GetLastError(), so that the caller may report it after cleanup.
struct HandleCloser {
  void operator()(RawHandle handle) const noexcept;  // CloseHandle
};

using UniqueHandle = std::unique_ptr<void, HandleCloser>;

// A handle with several owners, closed by the last. A null UniqueHandle converts to a null one.
using SharedHandle = std::shared_ptr<void>;

// Adopts the result of CreateFile. Converts INVALID_HANDLE_VALUE to null.
UniqueHandle AdoptFile(RawHandle raw) noexcept;

struct LocalMemoryFreer {
  void operator()(void* memory) const noexcept;  // LocalFree
};

// Owns memory that Windows allocated with LocalAlloc.
template <typename T>
using UniqueLocalMemory = std::unique_ptr<T, LocalMemoryFreer>;

}  // namespace Vx::Platform
