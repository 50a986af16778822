#include "platform/data_protection.h"

#include <limits>

#include <windows.h>

#include <wincrypt.h>

#include "platform/unique_handle.h"
#include "platform/windows/capabilities.h"

namespace Vx::Platform {

namespace {

using Bytes = std::vector<std::byte>;

// The call takes a non-const pointer but only reads.
DATA_BLOB BlobOf(std::span<const std::byte> bytes) {
  auto* data = const_cast<std::byte*>(bytes.data());
  return {static_cast<DWORD>(bytes.size()), reinterpret_cast<BYTE*>(data)};
}

Bytes TakeBlob(const DATA_BLOB& blob) {
  const UniqueLocalMemory<void> owner(blob.pbData);
  const auto* first = reinterpret_cast<const std::byte*>(blob.pbData);
  return Bytes(first, first + blob.cbData);
}

bool FitsBlob(std::span<const std::byte> bytes) {
  return bytes.size() <= std::numeric_limits<DWORD>::max();
}

class RealDataProtection final : public DataProtection {
 public:
  Result<Bytes> Protect(std::span<const std::byte> plain,
                        const std::wstring& description) const override {
    if (!FitsBlob(plain)) return Failure(ERROR_INVALID_PARAMETER);
    DATA_BLOB in = BlobOf(plain);
    DATA_BLOB out{};
    if (CryptProtectData(&in, description.c_str(), nullptr, nullptr, nullptr,
                         CRYPTPROTECT_LOCAL_MACHINE, &out) == 0) {
      return Failure(GetLastError());
    }
    return TakeBlob(out);
  }

  Result<Bytes> Unprotect(std::span<const std::byte> sealed) const override {
    if (!FitsBlob(sealed)) return Failure(ERROR_INVALID_PARAMETER);
    DATA_BLOB in = BlobOf(sealed);
    DATA_BLOB out{};
    if (CryptUnprotectData(&in, nullptr, nullptr, nullptr, nullptr, CRYPTPROTECT_LOCAL_MACHINE,
                           &out) == 0) {
      return Failure(GetLastError());
    }
    return TakeBlob(out);
  }
};

}  // namespace

DataProtection& WindowsDataProtection() {
  static RealDataProtection protection;
  return protection;
}

}  // namespace Vx::Platform
