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

void Write(const std::wstring& key, const wchar_t* value, DWORD type, const void* data,
           std::size_t size) {
  const LSTATUS error =
      RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, type, data, static_cast<DWORD>(size));
  if (error != ERROR_SUCCESS) {
    throw std::runtime_error("cannot write the service's parameters (error " +
                             std::to_string(error) + "); run as administrator");
  }
}

void WriteText(const std::wstring& key, const wchar_t* value, DWORD type,
               const std::wstring& text) {
  Write(key, value, type, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
}

}  // namespace

bool IsServiceName(const std::wstring& name) {
  return !name.empty() && name.size() <= kLongestName && std::ranges::all_of(name, [](wchar_t c) {
    return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9') ||
           c == L'.' || c == L'-' || c == L'_';
  });
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
  const std::wstring key = KeyOf(options.name);
  std::wstring allowed;
  for (const std::wstring& sid : options.allowed) (allowed += sid) += L'\0';
  const DWORD development = options.development ? kOn : 0;
  WriteText(key, kModule, REG_SZ, options.module);
  WriteText(key, kAllow, REG_MULTI_SZ, allowed);
  Write(key, kDevelopment, REG_DWORD, &development, sizeof development);
}

}  // namespace Vx::Hosting::ServiceHost
