#include "platform/data_protection.h"

#include <limits>

#include <windows.h>

#include <wincrypt.h>

#include "platform/unique_handle.h"
#include "platform/windows/capabilities.h"

namespace Vx::Platform {

namespace {

using Bytes = std::vector<std::byte>;

// Encrypts or decrypts `bytes` with `call`.
template <typename Call>
Result<Bytes> Convert(std::span<const std::byte> bytes, Call call) {
  if (bytes.size() > std::numeric_limits<DWORD>::max()) return Failure(ERROR_INVALID_PARAMETER);
  // The call takes a non-const pointer but only reads.
  auto* data = const_cast<std::byte*>(bytes.data());
  DATA_BLOB in{static_cast<DWORD>(bytes.size()), reinterpret_cast<BYTE*>(data)};
  DATA_BLOB out{};
  if (call(&in, &out) == FALSE) return Failure(GetLastError());
  const UniqueLocalMemory<void> owner(out.pbData);
  const auto* first = reinterpret_cast<const std::byte*>(out.pbData);
  return Bytes(first, first + out.cbData);
}

class RealDataProtection final : public DataProtection {
 public:
  Result<Bytes> Protect(std::span<const std::byte> plain,
                        const std::wstring& description) const override {
    return Convert(plain, [&](DATA_BLOB* in, DATA_BLOB* out) {
      return CryptProtectData(in, description.c_str(), nullptr, nullptr, nullptr,
                              CRYPTPROTECT_LOCAL_MACHINE, out);
    });
  }

  Result<Bytes> Unprotect(std::span<const std::byte> sealed) const override {
    return Convert(sealed, [](DATA_BLOB* in, DATA_BLOB* out) {
      return CryptUnprotectData(in, nullptr, nullptr, nullptr, nullptr, CRYPTPROTECT_LOCAL_MACHINE,
                                out);
    });
  }
};

}  // namespace

DataProtection& WindowsDataProtection() {
  static RealDataProtection protection;
  return protection;
}

}  // namespace Vx::Platform
