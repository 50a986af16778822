#include "servicehost/service_parameters.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

#include <windows.h>

namespace Vx::Host {

namespace {

constexpr std::size_t kLongestName = 64;

// Accounts other than administrators and SYSTEM may only read it. DeleteService deletes the service's
// key with its subkeys: https://learn.microsoft.com/windows/win32/api/winsvc/nf-winsvc-deleteservice
constexpr wchar_t kServices[] = L"SYSTEM\\CurrentControlSet\\Services\\";
constexpr wchar_t kParameters[] = L"\\Parameters";

constexpr wchar_t kModule[] = L"Module";
constexpr wchar_t kAllow[] = L"Allow";
constexpr wchar_t kDevelopment[] = L"Development";

std::wstring KeyOf(const std::wstring& name) {
  return kServices + name + kParameters;
}

// A value of one of the types for texts, without the end that RegGetValueW gives it. Empty if there
// is none.
std::wstring ReadText(const std::wstring& key, const wchar_t* value, DWORD type) {
  DWORD size = 0;
  if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, type, nullptr, nullptr, &size) !=
      ERROR_SUCCESS) {
    return {};
  }
  std::wstring text(size / sizeof(wchar_t) + 2, L'\0');
  size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
  if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, type, nullptr, text.data(), &size) !=
      ERROR_SUCCESS) {
    return {};
  }
  text.resize(text.find_last_not_of(L'\0', size / sizeof(wchar_t)) + 1);
  return text;
}

void Write(const std::wstring& key, const wchar_t* value, DWORD type, const void* data,
           std::size_t size) {
  const LSTATUS error = RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, type, data,
                                        static_cast<DWORD>(size));
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
  ServiceOptions options{.name = name, .module = ReadText(key, kModule, RRF_RT_REG_SZ)};
  const std::wstring allowed = ReadText(key, kAllow, RRF_RT_REG_MULTI_SZ);
  for (std::size_t at = 0; at < allowed.size();) {
    options.allowed.emplace_back(allowed.c_str() + at);
    at += options.allowed.back().size() + 1;
  }
  DWORD development = 0;
  DWORD size = sizeof development;
  options.development = RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), kDevelopment,
                                     RRF_RT_REG_DWORD, nullptr, &development,
                                     &size) == ERROR_SUCCESS &&
                        development == 1;
  return options;
}

void WriteParameters(const ServiceOptions& options) {
  const std::wstring key = KeyOf(options.name);
  std::wstring allowed;
  for (const std::wstring& sid : options.allowed) (allowed += sid) += L'\0';
  const DWORD development = options.development ? 1 : 0;
  WriteText(key, kModule, REG_SZ, options.module);
  WriteText(key, kAllow, REG_MULTI_SZ, allowed);
  Write(key, kDevelopment, REG_DWORD, &development, sizeof development);
}

}  // namespace Vx::Host
