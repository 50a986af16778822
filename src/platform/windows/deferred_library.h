#pragma once

#include <atomic>

#include <windows.h>

namespace Vx::Platform {

// A library of Windows that only a launch or the firmware needs. A host whose module never gets
// there does not pay for it. Loads the library when its first function is asked for, from the
// system directory by its full path, and keeps it for the life of the process: freeing it would
// have to happen while this module is unloaded, under the loader's lock, where Windows forbids it.
// Loads as the process, also in a thread that acts as a user.
//
// Not for DllMain and constructors, for the same reason. Any thread. Does not throw.
class DeferredLibrary {
 public:
  // `name` has no folder and outlives this object.
  constexpr explicit DeferredLibrary(const wchar_t* name) noexcept : fileName(name) {}

  // Returns the function `name`, or null, with the reason as the thread's last error, if the
  // library does not load or lacks the function.
  template <typename Function>
  Function* Find(const char* name) noexcept {
    return reinterpret_cast<Function*>(Address(name));
  }

 private:
  void* Address(const char* name) noexcept;
  HMODULE Load() noexcept;
  HMODULE LoadAsProcess() noexcept;

  const wchar_t* fileName;
  std::atomic<HMODULE> loaded = nullptr;
};

}  // namespace Vx::Platform
