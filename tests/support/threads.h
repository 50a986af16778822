#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <windows.h>

#include "platform/unique_handle.h"

namespace Vx::Tests {

// Waits at most `limit` for the condition. Returns whether it holds.
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(limit.count());
  while (!condition()) {
    if (GetTickCount64() > end) return false;
    Sleep(2);
  }
  return true;
}

// Returns whether another thread could lock the mutex now.
inline bool IsFree(std::mutex& mutex) {
  bool taken = false;
  std::thread([&] { taken = std::unique_lock(mutex, std::try_to_lock).owns_lock(); }).join();
  return taken;
}

// Likewise for a named mutex, within `patience` milliseconds, because other processes may hold it.
inline bool IsFree(const std::wstring& name, DWORD patience = 0) {
  bool taken = false;
  std::thread([&] {
    const Platform::UniqueHandle mutex(CreateMutexW(nullptr, FALSE, name.c_str()));
    const DWORD code = WaitForSingleObject(mutex.get(), patience);
    taken = code == WAIT_OBJECT_0 || code == WAIT_ABANDONED;
    if (taken) ReleaseMutex(mutex.get());
  }).join();
  return taken;
}

inline Platform::UniqueHandle ThreadToken() {
  HANDLE raw = nullptr;
  OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &raw);
  return Platform::UniqueHandle(raw);
}

inline bool ThreadActsAsAnother() {
  return ThreadToken() != nullptr;
}

// Makes GoogleTest start its thread for the caller's thread-locals now. Otherwise the first trace
// or failure would start it and add a stack and handles to a test's counts.
inline void StartFrameworkThread() {
  SCOPED_TRACE("");
}

}  // namespace Vx::Tests
