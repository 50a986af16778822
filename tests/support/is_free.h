#pragma once

#include <mutex>
#include <string>
#include <thread>

#include "platform/unique_handle.h"

#include <windows.h>

namespace Vx::Tests {

// Returns whether another thread could lock the mutex now.
inline bool IsFree(std::mutex& mutex) {
  bool taken = false;
  std::thread([&] { taken = std::unique_lock(mutex, std::try_to_lock).owns_lock(); }).join();
  return taken;
}

// Does the same for the named kernel mutex.
inline bool IsFree(const std::wstring& name) {
  bool taken = false;
  std::thread([&] {
    const Platform::UniqueHandle mutex(CreateMutexW(nullptr, FALSE, name.c_str()));
    const DWORD code = WaitForSingleObject(mutex.get(), 0);
    taken = code == WAIT_OBJECT_0 || code == WAIT_ABANDONED;
    if (taken) ReleaseMutex(mutex.get());
  }).join();
  return taken;
}

}  // namespace Vx::Tests
