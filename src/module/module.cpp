#include "host/vx_service.h"
#include "platform/runtime/fail_fast.h"
#include "service/orvane_service.h"

#include <windows.h>

// No exception may pass into the host, which another compiler built. A null pointer reports that no
// service could be made.
extern "C" Vx::Tessel::Server::Services::VxService* VxCreateService() noexcept {
  return Vx::Tessel::Server::Services::Orvane::OrvaneService::Create();
}

// Takes the place of the C++ runtime's own handler, which DllMain exchanges before anything can
// throw. That one prints the exception's type, and the demangler for it would be a twentieth of
// this module.
namespace __gnu_cxx {
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the runtime's name
void __verbose_terminate_handler() {
  Vx::Platform::FailFast();
}
}  // namespace __gnu_cxx

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* /*reserved*/) {
  // Refused where the runtime has thread-local storage of its own; nothing is lost by that.
  if (reason == DLL_PROCESS_ATTACH) {
    DisableThreadLibraryCalls(module);
    Vx::Platform::FailFastOnTerminate();  // exchanges a pointer, loads and waits for nothing
  }
  return TRUE;
}
