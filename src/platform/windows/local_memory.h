#pragma once

#include <memory>

#include <windows.h>

namespace Vx::Platform {

// Owner of a block that a Windows call made with LocalAlloc.
struct LocalMemoryFreer {
  void operator()(void* memory) const noexcept { LocalFree(memory); }
};
template <typename T>
using UniqueLocalMemory = std::unique_ptr<T, LocalMemoryFreer>;

}  // namespace Vx::Platform
