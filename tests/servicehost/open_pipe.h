#pragma once

#include "support/test.h"

namespace Vx::Hosting::ServiceHost {

// Opens the pipe as a client that can send arbitrary bytes.
inline Platform::UniqueHandle OpenPipe(const std::wstring& path, DWORD flags = 0) {
  Platform::UniqueHandle pipe;
  EXPECT_TRUE(Tests::Eventually([&] {
    pipe = Platform::AdoptFile(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                           OPEN_EXISTING, flags, nullptr));
    DWORD mode = PIPE_READMODE_MESSAGE;
    return pipe && SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr) != FALSE;
  }));
  return pipe;
}

}  // namespace Vx::Hosting::ServiceHost
