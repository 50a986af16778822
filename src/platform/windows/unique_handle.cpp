#include "platform/unique_handle.h"

#include <windows.h>

namespace Vx::Platform {

void HandleCloser::operator()(RawHandle handle) const noexcept {
  const DWORD error = GetLastError();
  CloseHandle(handle);
  SetLastError(error);
}

UniqueHandle AdoptFile(RawHandle raw) noexcept {
  return UniqueHandle(raw == INVALID_HANDLE_VALUE ? nullptr : raw);
}

void LocalMemoryFreer::operator()(void* memory) const noexcept {
  LocalFree(memory);
}

}  // namespace Vx::Platform
