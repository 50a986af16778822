#include "host/vx_service.h"
#include "platform/runtime/fail_fast.h"
#include "service/orvane_service.h"

#include <windows.h>

// No exception may reach the host, which another compiler built. Returns null on failure.
extern "C" Vx::Tessel::Server::Services::VxService* VxCreateService() noexcept {
  return Vx::Tessel::Server::Services::Orvane::OrvaneService::Create();
}

// Replaces the C++ runtime's terminate handler, which prints the exception's type. Its demangler
// would take up a twentieth of this module. DllMain sets another handler before anything can throw.
namespace __gnu_cxx {
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the runtime's name
void __verbose_terminate_handler() {
  Vx::Platform::FailFast();
}
}  // namespace __gnu_cxx

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* /*reserved*/) {
  // DisableThreadLibraryCalls fails if the module has static TLS, which does no harm.
  if (reason == DLL_PROCESS_ATTACH) {
    DisableThreadLibraryCalls(module);
    Vx::Platform::FailFastOnTerminate();  // exchanges a pointer; does not load or wait
  }
  return TRUE;
}
