#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "platform/machine.h"
#include "simulator/simulated_files.h"

namespace Vx::Tests {

inline constexpr Platform::ErrorCode kFault = 1117;  // ERROR_IO_DEVICE
inline constexpr std::uint32_t kReparsePoint = 0x400;

// Real files, with switches for faults other than a refused call.
class FaultyFiles : public Simulator::SimulatedFiles {
 public:
  bool writesStopHalfway = false;
  std::function<void()> onContent = [] {};     // called before content is read, written or moved
  bool linksEverywhere = false;                // every existing path has the reparse attribute
  mutable std::size_t largestRead = 0;         // the bound of the last read
  std::vector<std::vector<std::byte>> writes;  // the content of each attempted write

  Platform::Result<std::uint32_t> Attributes(const std::wstring& path) const override {
    auto attributes = SimulatedFiles::Attributes(path);
    if (attributes && linksEverywhere) *attributes |= kReparsePoint;
    return attributes;
  }
  Platform::Result<std::vector<std::byte>> Read(const std::wstring& path,
                                                std::size_t maxBytes) const override {
    onContent();
    largestRead = maxBytes;
    return SimulatedFiles::Read(path, maxBytes);
  }
  Platform::ErrorCode Overwrite(const std::wstring& path,
                                std::span<const std::byte> content) override {
    onContent();
    writes.emplace_back(content.begin(), content.end());
    if (!writesStopHalfway) return SimulatedFiles::Overwrite(path, content);
    SimulatedFiles::Overwrite(path, content.first(content.size() / 2));
    return kFault;
  }
  Platform::ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) override {
    onContent();
    return SimulatedFiles::MoveOver(from, to);
  }
};

}  // namespace Vx::Tests
