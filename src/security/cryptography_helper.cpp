#include "host/cryptography_helper.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <span>
#include <string>
#include <vector>

#include "platform/data_protection.h"
#include "platform/files.h"
#include "platform/machine.h"

namespace Vx::Tessel::Security {

namespace {

// Win32 error codes.
constexpr std::uint32_t kSuccess = 0;
constexpr std::uint32_t kNotEnoughMemory = 8;
constexpr std::uint32_t kGeneralFailure = 31;
constexpr std::uint32_t kInvalidParameter = 87;
constexpr std::size_t kDigestSize = 32;

using Bytes = Platform::Result<std::vector<std::byte>>;

std::span<const std::byte> Input(const void* data, std::uint32_t size) {
  return {static_cast<const std::byte*>(data), size};
}

// Copies `bytes` to a block on this module's heap, which FreeResult frees.
std::uint32_t HandOver(const Bytes& bytes, void** result, std::uint32_t* resultSize) {
  if (!bytes) return bytes.Error();
  if (bytes->size() > std::numeric_limits<std::uint32_t>::max()) return kNotEnoughMemory;
  // One extra byte, so that the block for empty data is not null.
  void* block = std::malloc(bytes->size() + 1);
  if (block == nullptr) return kNotEnoughMemory;
  if (!bytes->empty()) std::memcpy(block, bytes->data(), bytes->size());
  *result = block;
  *resultSize = static_cast<std::uint32_t>(bytes->size());
  return kSuccess;
}

// Every slot uses this, because no exception may reach the host, which another compiler built.
template <typename Work>
std::uint32_t ResultFromException(Work&& work) noexcept {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return kNotEnoughMemory;
  } catch (...) {
    return kGeneralFailure;
  }
}

class ExportedHelper final : public Server::Services::VxCryptographyHelper {
 public:
  void* Destroy(unsigned flags) override {
    void* const address = this;
    this->~ExportedHelper();
    if ((flags & 1U) != 0) ::operator delete(address);
    return address;
  }

  std::uint32_t Protect(const void* plain, std::uint32_t size, const wchar_t* description,
                        void** result, std::uint32_t* resultSize) override {
    if (plain == nullptr || result == nullptr || resultSize == nullptr) return kInvalidParameter;
    return ResultFromException([&] {
      const std::wstring text = description == nullptr ? L"" : description;
      return HandOver(Platform::CurrentMachine().dataProtection->Protect(Input(plain, size), text),
                      result, resultSize);
    });
  }

  std::uint32_t Unprotect(const void* sealed, std::uint32_t size, void** result,
                          std::uint32_t* resultSize) override {
    if (sealed == nullptr || result == nullptr || resultSize == nullptr) return kInvalidParameter;
    return ResultFromException([&] {
      return HandOver(Platform::CurrentMachine().dataProtection->Unprotect(Input(sealed, size)),
                      result, resultSize);
    });
  }

  std::uint32_t FileSha256(const wchar_t* path, unsigned char* digest) override {
    if (path == nullptr || digest == nullptr) return kInvalidParameter;
    return ResultFromException([&]() -> std::uint32_t {
      const Bytes sum = Platform::CurrentMachine().files->Sha256(path);
      if (!sum) return sum.Error();
      if (sum->size() != kDigestSize) return kGeneralFailure;
      std::memcpy(digest, sum->data(), kDigestSize);
      return kSuccess;
    });
  }

  void FreeResult(void* result) override { std::free(result); }
};

}  // namespace

}  // namespace Vx::Tessel::Security

extern "C" Vx::Tessel::Server::Services::VxCryptographyHelper* CreateCryptographyHelper() {
  return new (std::nothrow) Vx::Tessel::Security::ExportedHelper;
}
