#pragma once

#include <string>

#include "platform/unique_handle.h"

#include <windows.h>

namespace Vx::Tests {

// A named pipe whose server never writes, so that a reading client waits forever.
class SilentPipe {
 public:
  SilentPipe()
      : name(L"vx-silent-" + std::to_wstring(GetCurrentProcessId())),
        server(Platform::AdoptFile(CreateNamedPipeW(
            (L"\\\\.\\pipe\\" + name).c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
            PIPE_TYPE_BYTE | PIPE_WAIT, 1, 64, 64, 0, nullptr))),
        connected(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    call.hEvent = connected.get();
    ConnectNamedPipe(server.get(), &call);
  }
  ~SilentPipe() { CancelIo(server.get()); }

  const std::wstring& Name() const { return name; }

  bool HasHadAClient() const { return WaitForSingleObject(connected.get(), 0) == WAIT_OBJECT_0; }

  void Reconnect() {
    DisconnectNamedPipe(server.get());
    ResetEvent(connected.get());
    ConnectNamedPipe(server.get(), &call);
  }

 private:
  std::wstring name;
  Platform::UniqueHandle server;
  Platform::UniqueHandle connected;
  OVERLAPPED call{};
};

}  // namespace Vx::Tests
