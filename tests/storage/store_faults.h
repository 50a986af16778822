#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/data_protection.h"
#include "platform/files.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"

// The real capabilities that the store uses, with switches to make single operations fail.
namespace Vx::Tests {

inline constexpr Platform::ErrorCode kFault = 1117;  // ERROR_IO_DEVICE
inline constexpr std::uint32_t kReparsePoint = 0x400;

class FaultyFiles : public Platform::Files {
 public:
  bool readsFail = false;
  bool writesFail = false;
  bool writesStopHalfway = false;
  std::function<void()> onContent = [] {};     // before content is read, written or moved
  bool linksEverywhere = false;                // each existing path is a reparse point
  mutable std::size_t largestRead = 0;         // the bound of the last read
  std::vector<std::vector<std::byte>> writes;  // the content of each write call that was asked for

  Platform::Result<std::uint32_t> Attributes(const std::wstring& path) const override {
    Platform::Result<std::uint32_t> attributes = real.Attributes(path);
    if (attributes && linksEverywhere) *attributes |= kReparsePoint;
    return attributes;
  }
  bool ExistsByExactName(const std::wstring& path) const override {
    return real.ExistsByExactName(path);
  }
  Platform::ErrorCode MakeFolder(const std::wstring& path) override {
    return real.MakeFolder(path);
  }
  Platform::ErrorCode Touch(const std::wstring& path) override { return real.Touch(path); }
  Platform::Result<std::vector<std::byte>> Read(const std::wstring& path,
                                                std::size_t maxBytes) const override {
    onContent();
    largestRead = maxBytes;
    if (readsFail) return Platform::Result<std::vector<std::byte>>::Failure(kFault);
    return real.Read(path, maxBytes);
  }
  Platform::ErrorCode Overwrite(const std::wstring& path,
                                std::span<const std::byte> content) override {
    onContent();
    writes.emplace_back(content.begin(), content.end());
    if (writesStopHalfway) {
      real.Overwrite(path, content.first(content.size() / 2));
      return kFault;
    }
    return writesFail ? kFault : real.Overwrite(path, content);
  }
  Platform::ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) override {
    onContent();
    return real.MoveOver(from, to);
  }
  Platform::ErrorCode Remove(const std::wstring& path) override { return real.Remove(path); }
  Platform::Result<Platform::UniqueHandle> OpenReadLocked(const std::wstring& path) const override {
    return real.OpenReadLocked(path);
  }

 private:
  Platform::Files& real = *Platform::WindowsMachine().files;
};

class FaultyProtection final : public Platform::DataProtection {
 public:
  bool protectFails = false;
  bool uuidFails = false;

  Platform::Result<std::vector<std::byte>> Protect(std::span<const std::byte> plain,
                                                   const std::wstring& text) const override {
    if (protectFails) return Platform::Result<std::vector<std::byte>>::Failure(kFault);
    return real.Protect(plain, text);
  }
  Platform::Result<std::vector<std::byte>> Unprotect(
      std::span<const std::byte> sealed) const override {
    return real.Unprotect(sealed);
  }
  Platform::Result<std::wstring> NewUuid() const override {
    if (uuidFails) return Platform::Result<std::wstring>::Failure(kFault);
    return real.NewUuid();
  }
  Platform::Result<std::vector<std::byte>> FileSha256(const std::wstring& path) const override {
    return real.FileSha256(path);
  }

 private:
  const Platform::DataProtection& real = *Platform::WindowsMachine().dataProtection;
};

class FaultyKernel final : public Platform::KernelObjects {
 public:
  std::atomic<bool> makeFails{false};
  std::atomic<bool> lockFails{false};
  std::atomic<bool> unlockFails{false};

  Platform::Result<Platform::UniqueHandle> MakeMutex(const std::wstring& name) override {
    if (makeFails) return Platform::Result<Platform::UniqueHandle>::Failure(kFault);
    return real.MakeMutex(name);
  }
  Platform::ErrorCode LockMutex(Platform::RawHandle mutex) override {
    return lockFails ? kFault : real.LockMutex(mutex);
  }
  Platform::ErrorCode UnlockMutex(Platform::RawHandle mutex) override {
    const Platform::ErrorCode error = real.UnlockMutex(mutex);
    return unlockFails ? kFault : error;
  }
  Platform::Result<Platform::UniqueHandle> MakeManualEvent(const std::wstring& name) override {
    return real.MakeManualEvent(name);
  }
  Platform::ErrorCode Signal(Platform::RawHandle event) override { return real.Signal(event); }

 private:
  Platform::KernelObjects& real = *Platform::WindowsMachine().kernelObjects;
};

}  // namespace Vx::Tests
