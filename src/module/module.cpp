#include "host/vx_service.h"
#include "platform/fail_fast.h"
#include "service/orvane_service.h"

#include <windows.h>

// No exception may pass into the host, which another compiler built. A null pointer reports that no
// service could be made.
extern "C" Vx::Tessel::Server::Services::VxService* VxCreateService() noexcept {
  return Vx::Tessel::Server::Services::Orvane::OrvaneService::Create();
}

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* /*reserved*/) {
  // Refused where the runtime has thread-local storage of its own; nothing is lost by that.
  if (reason == DLL_PROCESS_ATTACH) {
    DisableThreadLibraryCalls(module);
    Vx::Platform::FailFastOnTerminate();  // exchanges a pointer, loads and waits for nothing
  }
  return TRUE;
}
