#pragma once

#include <chrono>

#include "platform/unique_handle.h"

namespace Vx::Hosting {

// How long a command waits for the store.
struct HoldLimits {
  std::chrono::milliseconds notice{1000};     // before reporting the wait
  std::chrono::milliseconds timeout{30'000};  // in total; 0 means no limit
};

// Waits for one of the store's mutexes. After `limits.notice`, reports its holder to standard error
// if Windows reveals it. Throws std::runtime_error on timeout or failure.
void AwaitStoreMutex(Platform::RawHandle mutex, const HoldLimits& limits);

}  // namespace Vx::Hosting
