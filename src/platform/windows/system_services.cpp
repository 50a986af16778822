#include "platform/system_services.h"

#include <limits>
#include <memory>
#include <type_traits>

#include <windows.h>

#include <rpc.h>
#include <winternl.h>

#include "host/app_service_proxy.h"
#include "platform/windows/capabilities.h"
#include "platform/windows/deferred_library.h"
#include "platform/windows/file_handle.h"

namespace Vx::Platform {

namespace {

constexpr wchar_t kNtDll[] = L"ntdll.dll";
constexpr wchar_t kKernel32[] = L"kernel32.dll";

constexpr std::uint32_t kNotImplemented = 0xC0000002;  // STATUS_NOT_IMPLEMENTED
// HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND)
constexpr auto kNoEntryPoint = static_cast<std::int32_t>(0x8007007F);

using ApiSetQuery = NTSTATUS NTAPI(const UNICODE_STRING* name, BOOLEAN* present);
using ApiSetQueryEx = NTSTATUS NTAPI(const UNICODE_STRING* name, BOOLEAN* inSchema,
                                     BOOLEAN* present);
using OobeCompleteQuery = BOOL WINAPI(BOOL* complete);
using LockdownModeQuery = HRESULT WINAPI(std::int32_t* mode);

struct TriggerConfig {
  DWORD size = sizeof(TriggerConfig);
  const wchar_t* triggerId = nullptr;
};
static_assert(sizeof(TriggerConfig) == 16);
using RaiseTrigger = DWORD NTAPI(TriggerConfig* config);

class RealApiSets final : public ApiSets {
 public:
  bool IsPresent(const std::wstring& name) const override {
    constexpr std::size_t kLongest = std::numeric_limits<USHORT>::max() / sizeof(wchar_t) - 1;
    if (name.size() > kLongest) return false;
    std::wstring copy = name;
    UNICODE_STRING text;
    text.Length = static_cast<USHORT>(copy.size() * sizeof(wchar_t));
    text.MaximumLength = static_cast<USHORT>(text.Length + sizeof(wchar_t));
    text.Buffer = copy.data();
    // Both are documented to return a BOOL but return a status. Neither sets its output on failure.
    BOOLEAN present = FALSE;
    NTSTATUS status = 0;
    if (auto* queryEx = SystemFunction<ApiSetQueryEx>(kNtDll, "ApiSetQueryApiSetPresenceEx")) {
      BOOLEAN inSchema = FALSE;
      status = queryEx(&text, &inSchema, &present);
    } else if (auto* query = SystemFunction<ApiSetQuery>(kNtDll, "ApiSetQueryApiSetPresence")) {
      status = query(&text, &present);
    } else {
      return true;
    }
    return status >= 0 && present != FALSE;
  }
};

class RealOobe final : public Oobe {
 public:
  State Query() const override {
    auto* query = SystemFunction<OobeCompleteQuery>(kKernel32, "OOBEComplete");
    BOOL complete = FALSE;
    if (query == nullptr || query(&complete) == FALSE) return {};
    return {true, complete != FALSE};
  }
};

class RealSystemTriggers final : public SystemTriggers {
 public:
  std::uint32_t Raise(const std::wstring& triggerId) override {
    auto* raise = SystemFunction<RaiseTrigger>(kNtDll, "RtlRaiseCustomSystemEventTrigger");
    if (raise == nullptr) return kNotImplemented;
    TriggerConfig config;
    config.triggerId = triggerId.c_str();
    return raise(&config);
  }

  bool ArePresent() const override {
    return SystemFunction<RaiseTrigger>(kNtDll, "RtlRaiseCustomSystemEventTrigger") != nullptr;
  }
};

class RealLockdownPolicy final : public LockdownPolicy {
 public:
  Result<std::int32_t> QueryMode(const std::wstring& fullPath, std::int32_t& mode) const override {
    if (!IsFullPath(fullPath)) return Failure(ERROR_BAD_PATHNAME);
    // The flag limits the search for the library's dependencies to the system folder.
    const std::unique_ptr<std::remove_pointer_t<HMODULE>, decltype(&FreeLibrary)> library(
        LoadLibraryExW(fullPath.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32), &FreeLibrary);
    if (library == nullptr) return Failure(GetLastError());
    auto* query = reinterpret_cast<LockdownModeQuery*>(
        reinterpret_cast<void*>(GetProcAddress(library.get(), "WldpQueryWindowsLockdownMode")));
    return query == nullptr ? kNoEntryPoint : query(&mode);
  }
};

class ProxiedAppService final : public AppService {
 public:
  ProxiedAppService(const std::wstring& packageFamilyName, const std::wstring& appServiceName)
      : proxy(packageFamilyName, appServiceName) {}

  std::pair<int, std::wstring> Send(const std::wstring& text) override {
    return proxy.send_message(text);
  }

  void SystemRestarted() override { proxy.SystemRestarted(); }

 private:
  Tessel::Server::TesselCommunication::AppServiceProxySDK proxy;
};

class ProxiedAppServices final : public AppServices {
 public:
  std::unique_ptr<AppService> Open(const std::wstring& packageFamilyName,
                                   const std::wstring& appServiceName) override {
    return std::make_unique<ProxiedAppService>(packageFamilyName, appServiceName);
  }
};

}  // namespace

ApiSets& WindowsApiSets() {
  static RealApiSets apiSets;
  return apiSets;
}

Oobe& WindowsOobe() {
  static RealOobe oobe;
  return oobe;
}

SystemTriggers& WindowsSystemTriggers() {
  static RealSystemTriggers triggers;
  return triggers;
}

LockdownPolicy& WindowsLockdownPolicy() {
  static RealLockdownPolicy policy;
  return policy;
}

AppServices& WindowsAppServices() {
  static ProxiedAppServices services;
  return services;
}

Result<std::wstring> NewUuid() {
  UUID uuid;
  const RPC_STATUS status = UuidCreate(&uuid);
  // A "local only" UUID is unique on this machine, which suffices.
  if (status != RPC_S_OK && status != RPC_S_UUID_LOCAL_ONLY) {
    return Failure(static_cast<ErrorCode>(status));
  }
  RPC_WSTR raw = nullptr;
  const RPC_STATUS converted = UuidToStringW(&uuid, &raw);
  if (converted != RPC_S_OK) return Failure(static_cast<ErrorCode>(converted));
  const auto freeText = [](RPC_WSTR text) { RpcStringFreeW(&text); };
  const std::unique_ptr<std::remove_pointer_t<RPC_WSTR>, decltype(freeText)> owner(raw, freeText);
  return std::wstring(reinterpret_cast<const wchar_t*>(raw));
}

}  // namespace Vx::Platform
