#include "platform/data_protection.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <type_traits>

#include <windows.h>

#include <bcrypt.h>
#include <rpc.h>
#include <wincrypt.h>

#include "platform/unique_handle.h"
#include "platform/windows/capabilities.h"
#include "platform/windows/local_memory.h"

namespace Vx::Platform {

namespace {

using Bytes = std::vector<std::byte>;

constexpr std::size_t kSha256Bytes = 32;
constexpr std::size_t kReadStep = std::size_t{64} * 1024;

struct AlgorithmCloser {
  void operator()(void* algorithm) const noexcept { BCryptCloseAlgorithmProvider(algorithm, 0); }
};
struct HashCloser {
  void operator()(void* hash) const noexcept { BCryptDestroyHash(hash); }
};

// The call takes its input through a pointer to non-const, but only reads it.
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

// Feeds the rest of `file` to `hash`; zero or the error.
ErrorCode HashContent(RawHandle file, BCRYPT_HASH_HANDLE hash) {
  std::vector<UCHAR> piece(kReadStep);
  for (;;) {
    DWORD got = 0;
    if (ReadFile(file, piece.data(), static_cast<DWORD>(piece.size()), &got, nullptr) == 0) {
      return GetLastError();
    }
    if (got == 0) return 0;
    const NTSTATUS status = BCryptHashData(hash, piece.data(), got, 0);
    if (status < 0) return static_cast<ErrorCode>(status);
  }
}

class RealDataProtection final : public DataProtection {
 public:
  Result<Bytes> Protect(std::span<const std::byte> plain,
                        const std::wstring& description) const override {
    if (!FitsBlob(plain)) return Result<Bytes>::Failure(ERROR_INVALID_PARAMETER);
    DATA_BLOB in = BlobOf(plain);
    DATA_BLOB out{};
    if (CryptProtectData(&in, description.c_str(), nullptr, nullptr, nullptr,
                         CRYPTPROTECT_LOCAL_MACHINE, &out) == 0) {
      return Result<Bytes>::Failure(GetLastError());
    }
    return TakeBlob(out);
  }

  Result<Bytes> Unprotect(std::span<const std::byte> sealed) const override {
    if (!FitsBlob(sealed)) return Result<Bytes>::Failure(ERROR_INVALID_PARAMETER);
    DATA_BLOB in = BlobOf(sealed);
    DATA_BLOB out{};
    if (CryptUnprotectData(&in, nullptr, nullptr, nullptr, nullptr, CRYPTPROTECT_LOCAL_MACHINE,
                           &out) == 0) {
      return Result<Bytes>::Failure(GetLastError());
    }
    return TakeBlob(out);
  }

  Result<std::wstring> NewUuid() const override {
    UUID uuid;
    const RPC_STATUS status = UuidCreate(&uuid);
    // "Local only" is unique on this machine, which is where the text is used.
    if (status != RPC_S_OK && status != RPC_S_UUID_LOCAL_ONLY) {
      return Result<std::wstring>::Failure(static_cast<ErrorCode>(status));
    }
    RPC_WSTR raw = nullptr;
    const RPC_STATUS converted = UuidToStringW(&uuid, &raw);
    if (converted != RPC_S_OK) {
      return Result<std::wstring>::Failure(static_cast<ErrorCode>(converted));
    }
    const auto freeText = [](RPC_WSTR text) { RpcStringFreeW(&text); };
    const std::unique_ptr<std::remove_pointer_t<RPC_WSTR>, decltype(freeText)> owner(raw, freeText);
    return std::wstring(reinterpret_cast<const wchar_t*>(raw));
  }

  Result<Bytes> FileSha256(const std::wstring& path) const override {
    const UniqueHandle file =
        AdoptFile(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (file == nullptr) return Result<Bytes>::Failure(GetLastError());

    BCRYPT_ALG_HANDLE rawAlgorithm = nullptr;
    NTSTATUS status =
        BCryptOpenAlgorithmProvider(&rawAlgorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0);
    if (status < 0) return Result<Bytes>::Failure(static_cast<ErrorCode>(status));
    const std::unique_ptr<void, AlgorithmCloser> algorithm(rawAlgorithm);

    BCRYPT_HASH_HANDLE rawHash = nullptr;
    status = BCryptCreateHash(algorithm.get(), &rawHash, nullptr, 0, nullptr, 0, 0);
    if (status < 0) return Result<Bytes>::Failure(static_cast<ErrorCode>(status));
    const std::unique_ptr<void, HashCloser> hash(rawHash);

    if (const ErrorCode error = HashContent(file.get(), hash.get()); error != 0) {
      return Result<Bytes>::Failure(error);
    }
    Bytes digest(kSha256Bytes);
    status = BCryptFinishHash(hash.get(), reinterpret_cast<UCHAR*>(digest.data()),
                              static_cast<ULONG>(digest.size()), 0);
    if (status < 0) return Result<Bytes>::Failure(static_cast<ErrorCode>(status));
    return digest;
  }
};

}  // namespace

DataProtection& WindowsDataProtection() {
  static RealDataProtection protection;
  return protection;
}

}  // namespace Vx::Platform
