#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/file_handle.h"
#include "simulator/simulated_files.h"

namespace Vx::Tests {

inline constexpr Platform::ErrorCode kFault = 1117;  // ERROR_IO_DEVICE
inline constexpr Platform::ErrorCode kDenied = 5;    // ERROR_ACCESS_DENIED
inline constexpr std::uint32_t kReparsePoint = 0x400;

// The faults of the files that FaultyFiles opens.
struct FileFaults {
  // Called with its name before each step that reads, changes or renames content, and with "Half"
  // in the middle of a write. Returns the error with which the step fails, or zero.
  std::function<Platform::ErrorCode(const char* step)> onStep = [](const char*) { return 0U; };

  std::function<void(Platform::FileFacts&)> onFacts = [](Platform::FileFacts&) {};
  bool foreignOwner = false;                   // every file belongs to another account
  std::wstring foreignMark = L"?";             // and each whose path has this in it
  std::size_t largestRead = 0;                 // the bound of the last read
  std::vector<std::vector<std::byte>> writes;  // the content of each attempted write
};

class FaultyFileHandle final : public Platform::FileHandle {
 public:
  FaultyFileHandle(std::unique_ptr<FileHandle> opened, const std::wstring& path,
                   Platform::FileUse use, FileFaults& switches)
      : real(std::move(opened)),
        foreign(path.find(switches.foreignMark) != path.npos),
        writable(use == Platform::FileUse::Change || use == Platform::FileUse::Replace),
        faults(switches) {}

  Platform::Result<Platform::FileFacts> Facts() const override {
    auto facts = real->Facts();
    if (facts) faults.onFacts(*facts);
    return facts;
  }
  Platform::Result<bool> HasTrustedOwner() const override {
    return faults.foreignOwner || foreign ? false : real->HasTrustedOwner();
  }
  Platform::Result<std::vector<std::byte>> Content(std::size_t maxBytes) const override {
    faults.largestRead = maxBytes;
    if (const Platform::ErrorCode error = faults.onStep("Content"); error != 0) {
      return Platform::Result<std::vector<std::byte>>::Failure(error);
    }
    return real->Content(maxBytes);
  }
  Platform::ErrorCode Write(std::span<const std::byte> content) override {
    faults.writes.emplace_back(content.begin(), content.end());
    return Or("Write", [&] {
      real->Write(content.first(content.size() / 2));
      return Or("Half", [&] { return real->Write(content); });
    });
  }
  Platform::ErrorCode SetSize(std::uint64_t size) override {
    return Or("SetSize", [&] { return real->SetSize(size); });
  }
  Platform::ErrorCode Flush() override {
    return Or("Flush", [&] { return writable ? real->Flush() : kDenied; });
  }
  Platform::ErrorCode MoveOver(const std::wstring& path) override {
    return Or("MoveOver", [&] { return real->MoveOver(path); });
  }
  Platform::ErrorCode Remove() override {
    return Or("Remove", [&] { return real->Remove(); });
  }

 private:
  template <typename Step>
  Platform::ErrorCode Or(const char* name, const Step& step) {
    const Platform::ErrorCode error = faults.onStep(name);
    return error != 0 ? error : step();
  }

  std::unique_ptr<FileHandle> real;
  const bool foreign;
  const bool writable;  // Windows flushes only a writable file
  FileFaults& faults;
};

// Real files with switchable faults.
class FaultyFiles : public Simulator::SimulatedFiles, public FileFaults {
 public:
  bool linksEverywhere = false;  // every existing path has the reparse attribute

  Platform::Result<std::uint32_t> Attributes(const std::wstring& path) const override {
    Platform::Result<std::uint32_t> attributes = SimulatedFiles::Attributes(path);
    if (attributes && linksEverywhere) *attributes |= kReparsePoint;
    return attributes;
  }
  Platform::Result<std::vector<std::byte>> Read(const std::wstring& path,
                                                std::size_t maxBytes) const override {
    if (const Platform::ErrorCode error = onStep("Read"); error != 0) {
      return Platform::Result<std::vector<std::byte>>::Failure(error);
    }
    return SimulatedFiles::Read(path, maxBytes);
  }
  Platform::ErrorCode Overwrite(const std::wstring& path,
                                std::span<const std::byte> content) override {
    writes.emplace_back(content.begin(), content.end());
    if (const Platform::ErrorCode error = onStep("Overwrite"); error != 0) return error;
    SimulatedFiles::Overwrite(path, content.first(content.size() / 2));
    const Platform::ErrorCode error = onStep("Half");
    return error != 0 ? error : SimulatedFiles::Overwrite(path, content);
  }
  Platform::ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) override {
    const Platform::ErrorCode error = onStep("MoveOver");
    return error != 0 ? error : SimulatedFiles::MoveOver(from, to);
  }
  Opened Open(const std::wstring& path, Platform::FileUse use) override {
    if (const Platform::ErrorCode error = onStep("Open"); error != 0) return Opened::Failure(error);
    return Faulty(SimulatedFiles::Open(path, use), path, use);
  }
  Opened Create(const std::wstring& path, const std::wstring& accessLike) override {
    if (const Platform::ErrorCode error = onStep("Create"); error != 0) {
      return Opened::Failure(error);
    }
    return Faulty(SimulatedFiles::Create(path, accessLike), path, Platform::FileUse::Replace);
  }

 private:
  Opened Faulty(Opened opened, const std::wstring& path, Platform::FileUse use) {
    if (!opened) return opened;
    std::unique_ptr<Platform::FileHandle> file =
        std::make_unique<FaultyFileHandle>(*std::move(opened), path, use, *this);
    return file;
  }
};

}  // namespace Vx::Tests
