#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/file_handle.h"
#include "simulator/simulated_files.h"

namespace Vx::Tests {

inline constexpr Platform::ErrorCode kFault = 1117;  // ERROR_IO_DEVICE
inline constexpr Platform::ErrorCode kDenied = 5;    // ERROR_ACCESS_DENIED
inline constexpr std::uint32_t kReparsePoint = 0x400;

struct FileFaults {
  // Called with the step's name before each step that reads, changes or renames content, and with
  // "Half" in the middle of a write. Returns the error that the step fails with, or zero.
  std::function<Platform::ErrorCode(const char* step)> onStep = [](const char*) { return 0U; };

  std::function<void(Platform::FileFacts&)> onFacts = [](Platform::FileFacts&) {};
  bool foreignOwner = false;                   // every file belongs to another account
  std::wstring foreignMark = L"?";             // so does each file whose path contains this
  std::size_t largestRead = 0;                 // the limit of the last read
  std::vector<std::vector<std::byte>> writes;  // the content of each attempted write

  template <typename Step>
  auto Or(const char* name, const Step& step) const {
    using Answer = decltype(step());
    const Platform::ErrorCode error = onStep(name);
    if constexpr (std::is_same_v<Answer, Platform::ErrorCode>) {
      return error != 0 ? error : step();
    } else {
      return error != 0 ? Answer(Platform::Failure(error)) : step();
    }
  }
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
    return faults.Or("Content", [&] { return real->Content(maxBytes); });
  }
  Platform::ErrorCode Write(std::span<const std::byte> content) override {
    faults.writes.emplace_back(content.begin(), content.end());
    return faults.Or("Write", [&] {
      real->Write(content.first(content.size() / 2));
      return faults.Or("Half", [&] { return real->Write(content); });
    });
  }
  Platform::ErrorCode SetSize(std::uint64_t size) override {
    return faults.Or("SetSize", [&] { return real->SetSize(size); });
  }
  Platform::ErrorCode Flush() override {
    return faults.Or("Flush", [&] { return writable ? real->Flush() : kDenied; });
  }
  Platform::ErrorCode MoveOver(const std::wstring& path) override {
    return faults.Or("MoveOver", [&] { return real->MoveOver(path); });
  }
  Platform::ErrorCode Remove() override {
    return faults.Or("Remove", [&] { return real->Remove(); });
  }

 private:
  std::unique_ptr<FileHandle> real;
  const bool foreign;
  const bool writable;  // Windows flushes only a writable file
  FileFaults& faults;
};

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
    return Or("Read", [&] { return SimulatedFiles::Read(path, maxBytes); });
  }
  Platform::ErrorCode Overwrite(const std::wstring& path,
                                std::span<const std::byte> content) override {
    writes.emplace_back(content.begin(), content.end());
    return Or("Overwrite", [&] {
      SimulatedFiles::Overwrite(path, content.first(content.size() / 2));
      return Or("Half", [&] { return SimulatedFiles::Overwrite(path, content); });
    });
  }
  Platform::ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) override {
    return Or("MoveOver", [&] { return SimulatedFiles::MoveOver(from, to); });
  }
  Opened Open(const std::wstring& path, Platform::FileUse use) override {
    return Or("Open", [&] { return Faulty(SimulatedFiles::Open(path, use), path, use); });
  }
  Opened Create(const std::wstring& path, const std::wstring& accessLike) override {
    return Or("Create", [&] {
      return Faulty(SimulatedFiles::Create(path, accessLike), path, Platform::FileUse::Replace);
    });
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
