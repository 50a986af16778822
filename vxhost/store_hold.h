#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "platform/unique_handle.h"

namespace Vx::Host {

// How long a command waits for the store.
struct HoldLimits {
  std::chrono::milliseconds notice{1000};     // until it reports that it waits
  std::chrono::milliseconds timeout{30'000};  // in all; 0: without limit
};

// Keeps every other process from the store for the life of this object: holds the mutexes that
// services and programs of this session use, where they exist, and makes none. The thread that made
// it may use the store meanwhile.
class StoreHold {
 public:
  // Reports on standard error after a while that it waits, and for which process where Windows
  // reveals that. Throws std::runtime_error when the time is over or a mutex cannot be opened.
  explicit StoreHold(HoldLimits limits = {});
  StoreHold(const StoreHold&) = delete;
  StoreHold& operator=(const StoreHold&) = delete;
  ~StoreHold();

 private:
  std::vector<Platform::UniqueHandle> held;
};

}  // namespace Vx::Host
