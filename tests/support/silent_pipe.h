#pragma once

#include <string>

#include "platform/unique_handle.h"

#include <windows.h>

namespace Vx::Tests {

// A named pipe that one client can open, and whose server never writes, so that a reading client
// waits forever.
class SilentPipe {
 public:
  const std::wstring& Path() const { return path; }

 private:
  const std::wstring path = L"\\\\.\\pipe\\vx-silent-" + std::to_wstring(GetCurrentProcessId());
  const Platform::UniqueHandle server = Platform::AdoptFile(CreateNamedPipeW(
      path.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE | PIPE_WAIT, 1, 64, 64, 0, nullptr));
};

}  // namespace Vx::Tests
