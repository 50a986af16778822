#pragma once

#include "hosting/services_mutex.h"
#include "hosting/store_wait.h"
#include "platform/unique_handle.h"

namespace Vx::Hosting {

// Keeps every other process out of the store for the life of this object: those that share the
// services' mutex, and those in this session, if it has a mutex. Does not create a session mutex.
// The constructing thread may still use the store.
class StoreHold {
 public:
  // Throws std::runtime_error, like ServicesMutexFor and AwaitStoreMutex.
  explicit StoreHold(StoreUse use, const HoldLimits& limits = {});
  StoreHold(const StoreHold&) = delete;
  StoreHold& operator=(const StoreHold&) = delete;
  ~StoreHold();

 private:
  ServicesMutexHold services;
  Platform::UniqueHandle session;
};

}  // namespace Vx::Hosting
