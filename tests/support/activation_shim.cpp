#include <atomic>

#include <windows.h>

#include <roapi.h>

// The library that the registry names for the faked classes. It only leads back into the test
// program, where the fakes and what they count live.

namespace {

std::atomic<PFNGETACTIVATIONFACTORY> provider{nullptr};

}  // namespace

extern "C" void SetFactoryProvider(PFNGETACTIVATIONFACTORY newProvider) {
  provider = newProvider;
}

extern "C" HRESULT WINAPI DllGetActivationFactory(HSTRING className, IActivationFactory** factory) {
  const PFNGETACTIVATIONFACTORY make = provider;
  return make != nullptr ? make(className, factory) : REGDB_E_CLASSNOTREG;
}

extern "C" HRESULT WINAPI DllCanUnloadNow() {
  return S_FALSE;
}
