#include "platform/registry.h"

#include <cstring>
#include <cwchar>
#include <memory>
#include <type_traits>

#include <windows.h>

#include "platform/windows/capabilities.h"

namespace Vx::Platform {

namespace {

// Far larger than any value read here. Another program could store a larger one.
constexpr DWORD kLargestValue = 1U << 20;
// A value can grow between the query for its size and the read.
constexpr int kAttempts = 3;

struct KeyCloser {
  void operator()(HKEY key) const noexcept { RegCloseKey(key); }
};
using UniqueKey = std::unique_ptr<std::remove_pointer_t<HKEY>, KeyCloser>;

Result<UniqueKey> Open(const std::wstring& path) {
  constexpr REGSAM kAccess = KEY_READ | KEY_WOW64_64KEY;
  HKEY raw = nullptr;
  const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, kAccess, &raw);
  if (status != ERROR_SUCCESS) return Failure(static_cast<ErrorCode>(status));
  return UniqueKey(raw);
}

// The last three parameters are optional.
ErrorCode Query(const UniqueKey& key, const std::wstring& value, DWORD* type, std::byte* data,
                DWORD* size) {
  return static_cast<ErrorCode>(RegQueryValueExW(key.get(), value.c_str(), nullptr, type,
                                                 reinterpret_cast<BYTE*>(data), size));
}

class RealRegistry final : public Registry {
 public:
  Result<RegistryValue> Read(const std::wstring& key, const std::wstring& value) const override {
    const Result<UniqueKey> open = Open(key);
    if (!open) return Failure(open.Error());
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      DWORD size = 0;
      if (const auto error = Query(*open, value, nullptr, nullptr, &size)) return Failure(error);
      if (size > kLargestValue) return Failure(ERROR_FILE_TOO_LARGE);
      RegistryValue result;
      result.data.resize(size);
      DWORD type = REG_NONE;
      const auto error = Query(*open, value, &type, result.data.data(), &size);
      if (error == ERROR_MORE_DATA) continue;
      if (error != ERROR_SUCCESS) return Failure(error);
      result.type = type;
      if (size < result.data.size()) result.data.resize(size);
      return result;
    }
    return Failure(ERROR_MORE_DATA);
  }

  bool Exists(const std::wstring& key, const std::wstring& value) const override {
    const Result<UniqueKey> open = Open(key);
    return open && Query(*open, value, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
  }
};

}  // namespace

Registry& WindowsRegistry() {
  static RealRegistry registry;
  return registry;
}

std::wstring TextOf(const RegistryValue& value) {
  // A stored value may lack the terminator or end in half a character.
  std::wstring text(value.data.size() / sizeof(wchar_t), L'\0');
  if (!text.empty()) std::memcpy(text.data(), value.data.data(), text.size() * sizeof(wchar_t));
  text.resize(std::wcslen(text.c_str()));
  return text;
}

}  // namespace Vx::Platform
