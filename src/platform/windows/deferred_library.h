#pragma once

#include <atomic>
#include <string_view>

#include <windows.h>

namespace Vx::Platform {

// A Windows library that only some operations need, or that a file beside the program could replace
// if it were imported. The first Find loads it from the system directory, under the process's
// identity even if the thread is impersonating. Never freed, because this module unloads under the
// loader lock, where Windows forbids FreeLibrary. Not for DllMain or constructors. Thread-safe.
// Does not throw.
class DeferredLibrary {
 public:
  constexpr explicit DeferredLibrary(const wchar_t* name) noexcept : fileName(name) {}

  // Returns null and sets the last error if the library cannot be loaded or lacks the function.
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

// Returns the library whose imports by this module are delayed (see vx_delayed_import), or null.
DeferredLibrary* DelayedLibrary(std::string_view file) noexcept;

// Returns a function of ntdll, kernel32 or kernelbase, which every process has loaded, or null if
// this Windows lacks it. A missing static import would prevent the whole module from loading.
template <typename Function>
Function* SystemFunction(const wchar_t* loadedLibrary, const char* name) noexcept {
  const HMODULE library = GetModuleHandleW(loadedLibrary);
  if (library == nullptr) return nullptr;
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

}  // namespace Vx::Platform
