#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>

#include <windows.h>

#include "platform/unique_handle.h"

// The records that a storm's writers keep in shared memory, which the test reads after killing
// them.
namespace Vx::Tests {

inline constexpr unsigned kKilled = 9;  // exit code of a killed worker

inline constexpr char kStormDocument[] = "storm";
inline constexpr std::size_t kWritersOfAProcess = 2;
inline constexpr std::size_t kMostProcesses = 32;

// The process number of a service that lacks the store's code, and the key it increments.
inline constexpr std::size_t kOtherService = kMostProcesses - 1;
inline constexpr char kOtherKey[] = "other_service";

struct StormWriter {
  std::atomic<std::int32_t> begun{0};         // the last value that it started to write
  std::atomic<std::int32_t> acknowledged{0};  // the last value that the store acknowledged
};

struct StormProcess {
  std::atomic<int> refused{0};  // writes that the store rejected
  std::array<StormWriter, kWritersOfAProcess> writers;
};

struct StormNotes {
  std::atomic<bool> end{false};         // each writer then makes one last write
  std::atomic<unsigned> abandoned{0U};  // times that the other service found the mutex abandoned
  std::array<StormProcess, kMostProcesses> processes;
};

inline std::string MemberOf(std::size_t process, std::size_t writer) {
  return std::to_string(process) + "." + std::to_string(writer);
}

// Opens the notes that several processes share under a name. They are initially zero.
class SharedNotes {
 public:
  explicit SharedNotes(const std::wstring& name)
      : mapping(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                   sizeof(StormNotes), name.c_str())),
        notes(mapping == nullptr ? nullptr
                                 : static_cast<StormNotes*>(MapViewOfFile(
                                       mapping.get(), FILE_MAP_ALL_ACCESS, 0, 0, 0))) {
    if (notes == nullptr) throw std::bad_alloc();
  }
  ~SharedNotes() { UnmapViewOfFile(notes); }

  StormNotes* operator->() const { return notes; }

 private:
  Platform::UniqueHandle mapping;
  StormNotes* notes;
};

}  // namespace Vx::Tests
