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

UniqueKey Open(const std::wstring& path, LSTATUS& status) {
  HKEY raw = nullptr;
  status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, &raw);
  return UniqueKey(status == ERROR_SUCCESS ? raw : nullptr);
}

class RealRegistry final : public Registry {
 public:
  Result<RegistryValue> Read(const std::wstring& key, const std::wstring& value) const override {
    LSTATUS status = ERROR_SUCCESS;
    const UniqueKey open = Open(key, status);
    if (open == nullptr) return Failure(status);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      DWORD size = 0;
      status = RegQueryValueExW(open.get(), value.c_str(), nullptr, nullptr, nullptr, &size);
      if (status != ERROR_SUCCESS) return Failure(status);
      if (size > kLargestValue) return Failure(ERROR_FILE_TOO_LARGE);
      RegistryValue result;
      result.data.resize(size);
      DWORD type = REG_NONE;
      status = RegQueryValueExW(open.get(), value.c_str(), nullptr, &type,
                                reinterpret_cast<BYTE*>(result.data.data()), &size);
      if (status == ERROR_MORE_DATA) continue;
      if (status != ERROR_SUCCESS) return Failure(status);
      result.type = type;
      if (size < result.data.size()) result.data.resize(size);
      return result;
    }
    return Failure(ERROR_MORE_DATA);
  }

  bool Exists(const std::wstring& key, const std::wstring& value) const override {
    LSTATUS status = ERROR_SUCCESS;
    const UniqueKey open = Open(key, status);
    return open != nullptr && RegQueryValueExW(open.get(), value.c_str(), nullptr, nullptr, nullptr,
                                               nullptr) == ERROR_SUCCESS;
  }

 private:
  static Result<RegistryValue> Failure(LSTATUS status) {
    return Result<RegistryValue>::Failure(static_cast<ErrorCode>(status));
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
