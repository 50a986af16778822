#include "servicehost/service_parameters.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <windows.h>

#include "platform/machine.h"
#include "platform/registry.h"

namespace Vx::Hosting::ServiceHost {

namespace {

constexpr std::size_t kLongestName = 64;

// Only administrators and SYSTEM can write here. DeleteService deletes the service's key with its
// subkeys: https://learn.microsoft.com/windows/win32/api/winsvc/nf-winsvc-deleteservice
constexpr wchar_t kServices[] = L"SYSTEM\\CurrentControlSet\\Services\\";
constexpr wchar_t kParameters[] = L"\\Parameters";
constexpr wchar_t kSources[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";

constexpr wchar_t kModule[] = L"Module";
constexpr wchar_t kAllow[] = L"Allow";
constexpr wchar_t kDevelopment[] = L"Development";
constexpr DWORD kOn = 1;

std::wstring KeyOf(const std::wstring& name) {
  return kServices + name + kParameters;
}

// Returns the value if it has this type, or else an empty value.
Platform::RegistryValue Read(const std::wstring& key, const wchar_t* name, DWORD type) {
  auto value = Platform::CurrentMachine().registry->Read(key, name);
  return value && value->type == type ? std::move(*value) : Platform::RegistryValue{};
}

// Writes the values of a key.
struct RegistryKey {
  void Write(const wchar_t* value, DWORD type, const void* data, std::size_t size) const {
    const LSTATUS error = RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, type, data,
                                          static_cast<DWORD>(size));
    if (error != ERROR_SUCCESS) {
      throw std::runtime_error(std::string(failure) + " (error " + std::to_string(error) +
                               "); run as administrator");
    }
  }
  void Write(const wchar_t* value, DWORD type, const std::wstring& text) const {
    Write(value, type, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
  }
  void Write(const wchar_t* value, DWORD number) const {
    Write(value, REG_DWORD, &number, sizeof number);
  }

  std::wstring key;
  const char* failure;
};

}  // namespace

bool IsServiceName(const std::wstring& name) {
  constexpr wchar_t kAllowed[] =
      L"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
  return !name.empty() && name.size() <= kLongestName &&
         name.find_first_not_of(kAllowed) == std::wstring::npos;
}

ServiceOptions ReadParameters(const std::wstring& name) {
  const std::wstring key = KeyOf(name);
  ServiceOptions options{.name = name, .module = TextOf(Read(key, kModule, REG_SZ))};
  // Null-terminated strings, followed by one more null.
  for (auto allowed = Read(key, kAllow, REG_MULTI_SZ); !TextOf(allowed).empty();) {
    options.allowed.push_back(TextOf(allowed));
    const std::size_t size = (options.allowed.back().size() + 1) * sizeof(wchar_t);
    allowed.data.erase(
        allowed.data.begin(),
        allowed.data.begin() + static_cast<std::ptrdiff_t>(std::min(size, allowed.data.size())));
  }
  const auto development = Read(key, kDevelopment, REG_DWORD);
  options.development = development.data.size() == sizeof kOn &&
                        std::memcmp(development.data.data(), &kOn, sizeof kOn) == 0;
  return options;
}

void WriteParameters(const ServiceOptions& options) {
  std::wstring allowed;
  for (const std::wstring& sid : options.allowed) (allowed += sid) += L'\0';
  const RegistryKey key{KeyOf(options.name), "cannot write the service's parameters"};
  key.Write(kModule, REG_SZ, options.module);
  key.Write(kAllow, REG_MULTI_SZ, allowed);
  key.Write(kDevelopment, options.development ? kOn : 0);
}

void AddEventSource(const std::wstring& name, const std::wstring& program) {
  const RegistryKey key{kSources + name, "cannot register the source of the event log"};
  key.Write(L"EventMessageFile", REG_SZ, program);
  key.Write(L"TypesSupported",
            EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE);
}

void RemoveEventSource(const std::wstring& name) noexcept {
  RegDeleteKeyW(HKEY_LOCAL_MACHINE, (kSources + name).c_str());
}

}  // namespace Vx::Hosting::ServiceHost
