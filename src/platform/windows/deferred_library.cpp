#include "platform/windows/deferred_library.h"

#include <array>
#include <cwchar>

namespace Vx::Platform {

HMODULE DeferredLibrary::Load() noexcept {
  if (const HMODULE known = loaded.load()) return known;
  std::array<wchar_t, MAX_PATH> path{};
  const UINT folder = GetSystemDirectoryW(path.data(), static_cast<UINT>(path.size()));
  if (folder == 0) return nullptr;
  if (folder + 1 + std::wcslen(fileName) >= path.size()) {
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return nullptr;
  }
  path[folder] = L'\\';
  std::wcscpy(&path[folder + 1], fileName);
  // The flag keeps the search for the library's own imports in the system directory.
  const HMODULE library = LoadLibraryExW(path.data(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (library == nullptr) return nullptr;
  // Only one of two threads at once keeps its reference, so that the number does not grow.
  HMODULE none = nullptr;
  if (!loaded.compare_exchange_strong(none, library)) FreeLibrary(library);
  return library;
}

void* DeferredLibrary::Address(const char* name) noexcept {
  const HMODULE library = Load();
  if (library == nullptr) return nullptr;
  return reinterpret_cast<void*>(GetProcAddress(library, name));
}

}  // namespace Vx::Platform
