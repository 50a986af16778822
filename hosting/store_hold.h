#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>

#include "platform/unique_handle.h"

// The module locks the store with a mutex whose name is unqualified. A service creates it in the
// global namespace. Any other program creates it in its session's namespace, where it does not
// block services. Therefore, hosts outside the services' session also acquire the global mutex.

namespace Vx::Hosting {

// Returns whether a process in `session`, with `programData` as its %ProgramData%, shares the store
// with services but not their mutex. `machineData` is the machine-wide value, or empty if unknown.
bool NeedsServicesMutex(std::uint32_t session, std::wstring_view programData,
                        std::wstring_view machineData);

// The services' mutex, which any thread may acquire. Null if this process does not need it.
using ServicesMutex = std::shared_ptr<void>;

enum class StoreUse { Read, Write };

// Opens the services' mutex. Returns null if this process does not need the mutex, or if no service
// has created it. For StoreUse::Write, throws std::runtime_error with advice for the user if this
// account may not open the mutex or another kind of object has the name. For StoreUse::Read, prints
// a warning to standard error and returns null in those cases, because writers replace the file
// atomically.
ServicesMutex ServicesMutexFor(StoreUse use);

// How long a command waits for one of the store's mutexes.
struct HoldLimits {
  std::chrono::milliseconds notice{1000};     // before reporting the holder to standard error
  std::chrono::milliseconds timeout{30'000};  // in total; 0 means no limit
};

// Holds the services' mutex, if it is needed and exists, on the current thread. Throws
// std::runtime_error on timeout or failure, and whatever ServicesMutexFor throws.
class ServicesMutexHold {
 public:
  explicit ServicesMutexHold(StoreUse use,
                             const HoldLimits& limits = {.timeout = std::chrono::milliseconds(0)});
  ServicesMutexHold(const ServicesMutexHold&) = delete;
  ServicesMutexHold& operator=(const ServicesMutexHold&) = delete;
  ~ServicesMutexHold();

 private:
  ServicesMutex held;
};

// Keeps other processes out of the store for the life of this object: those that use the services'
// mutex, and those that use this session's mutex, if it exists. Does not create a session mutex.
// The constructing thread may still use the store. Throws whatever ServicesMutexHold throws.
class StoreHold {
 public:
  explicit StoreHold(StoreUse use, const HoldLimits& limits = {});
  StoreHold(const StoreHold&) = delete;
  StoreHold& operator=(const StoreHold&) = delete;
  ~StoreHold();

 private:
  ServicesMutexHold services;
  Platform::UniqueHandle session;
};

}  // namespace Vx::Hosting
