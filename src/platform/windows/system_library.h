#pragma once

#include <string_view>

#include <windows.h>

namespace Vx::Platform {

// Returns a function of ntdll, kernel32 or kernelbase, which every process has loaded, or null if
// this Windows lacks it. A missing static import would prevent the whole module from loading.
template <typename Function>
Function* SystemFunction(const wchar_t* loadedLibrary, const char* name) noexcept {
  const HMODULE library = GetModuleHandleW(loadedLibrary);
  if (library == nullptr) return nullptr;
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

// Returns whether `path` is fully qualified: neither a search path nor a current directory affects
// it.
inline bool IsFullPath(std::wstring_view path) noexcept {
  const auto separates = [](wchar_t c) { return c == L'\\' || c == L'/'; };
  if (path.find(L'\0') != std::wstring_view::npos) return false;
  if (path.size() < 3) return false;
  if (separates(path[0]) && separates(path[1])) return true;
  return path[1] == L':' && separates(path[2]);
}

}  // namespace Vx::Platform
