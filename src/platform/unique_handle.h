#pragma once

#include <memory>

namespace Vx::Platform {

// A Windows HANDLE, spelled without <windows.h>. Borrowed wherever it stands alone in a signature.
using RawHandle = void*;

// Closers leave GetLastError() as they found it, so the caller may report it after cleanup.
struct HandleCloser {
  void operator()(RawHandle handle) const noexcept;  // CloseHandle
};

// Owns a kernel handle; null means none.
using UniqueHandle = std::unique_ptr<void, HandleCloser>;

// A handle that several holders share; closed when the last of them goes.
using SharedHandle = std::shared_ptr<void>;

// CreateFile fails with INVALID_HANDLE_VALUE where most calls fail with null. Converting at the
// door leaves the rest of the program a single empty value.
UniqueHandle AdoptFile(RawHandle raw) noexcept;

// Shares what `handle` owned; empty stays empty.
SharedHandle Share(UniqueHandle handle);

struct LocalMemoryFreer {
  void operator()(void* memory) const noexcept;  // LocalFree
};

// Owns a block that a Windows call made with LocalAlloc.
template <typename T>
using UniqueLocalMemory = std::unique_ptr<T, LocalMemoryFreer>;

}  // namespace Vx::Platform
