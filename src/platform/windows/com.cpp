#include "platform/com.h"

#include <windows.h>

#include <oleauto.h>
#include <wbemcli.h>

#include "platform/windows/capabilities.h"
#include "platform/windows/deferred_library.h"

namespace Vx::Platform {

namespace {

class RealCom final : public Com {
 public:
  std::int32_t InitializeMultithreaded() override {
    return CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  }

  void Uninitialize() override { CoUninitialize(); }

  std::int32_t InitializeSecurity(Cloaking cloaking) override {
    const DWORD capabilities = cloaking == Cloaking::Dynamic ? EOAC_DYNAMIC_CLOAKING : EOAC_NONE;
    return CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, capabilities, nullptr);
  }

  std::int32_t CreateWbemLocator(IWbemLocator** locator) override {
    // WMI needs this library. If it is missing, MakeText would appear to run out of memory.
    if (DelayedLibrary("oleaut32.dll")->Find<void>("SysAllocString") == nullptr) {
      return HRESULT_FROM_WIN32(GetLastError());
    }
    void* created = nullptr;
    const HRESULT result = CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER,
                                            IID_IWbemLocator, &created);
    *locator = static_cast<IWbemLocator*>(created);
    return result;
  }

  std::int32_t SetProxyBlanket(IUnknown* proxy) override {
    return CoSetProxyBlanket(proxy, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                             RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr,
                             EOAC_NONE);
  }

  wchar_t* MakeText(const wchar_t* text) override { return SysAllocString(text); }

  tagSAFEARRAY* MakeByteArray(std::uint32_t count) override {
    return SafeArrayCreateVector(VT_UI1, 0, count);
  }

  std::int32_t PutByte(tagSAFEARRAY* bytes, std::int32_t index, std::uint8_t value) override {
    LONG at = index;
    return SafeArrayPutElement(bytes, &at, &value);
  }
};

}  // namespace

Com& WindowsCom() {
  static RealCom com;
  return com;
}

}  // namespace Vx::Platform
