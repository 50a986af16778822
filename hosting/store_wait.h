#pragma once

#include <chrono>

#include "platform/unique_handle.h"

namespace Vx::Host {

// How long a command waits for the store.
struct HoldLimits {
  std::chrono::milliseconds notice{1000};     // until it reports that it waits
  std::chrono::milliseconds timeout{30'000};  // in all; 0: without limit
};

// Waits for a mutex of the store. After a while, reports on standard error which process holds it,
// where Windows reveals that. Throws std::runtime_error when the time is over.
void AwaitStoreMutex(Platform::RawHandle mutex, const HoldLimits& limits);

}  // namespace Vx::Host
