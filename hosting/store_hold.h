#pragma once

#include "hosting/services_mutex.h"
#include "hosting/store_wait.h"
#include "platform/unique_handle.h"

namespace Vx::Host {

// Keeps every other process from the store for the life of this object: those that share the
// services' mutex, and those of this session, if there is a mutex. Makes none for the session. The
// thread that made it may use the store meanwhile.
class StoreHold {
 public:
  // Throws std::runtime_error as ServicesMutexFor and AwaitStoreMutex do.
  explicit StoreHold(StoreUse use, const HoldLimits& limits = {});
  StoreHold(const StoreHold&) = delete;
  StoreHold& operator=(const StoreHold&) = delete;
  ~StoreHold();

 private:
  ServicesMutexHold services;
  Platform::UniqueHandle session;
};

}  // namespace Vx::Host
