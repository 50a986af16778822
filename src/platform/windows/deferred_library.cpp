#include "platform/windows/deferred_library.h"

#include <array>
#include <cwchar>

#include "platform/sessions.h"
#include "platform/unique_handle.h"
#include "platform/windows/capabilities.h"

namespace Vx::Platform {

HMODULE DeferredLibrary::Load() noexcept {
  if (const HMODULE known = loaded.load()) return known;
  // An impersonating thread may also see the drives as its user has defined them.
  Sessions& sessions = WindowsSessions();
  const Result<UniqueHandle> user = sessions.ThreadToken();
  ErrorCode error = user ? 0 : user.Error();
  if (error == 0 && *user == nullptr) return LoadAsProcess();
  if (error == 0) error = sessions.Revert();
  if (error == 0) {
    const HMODULE library = LoadAsProcess();
    const DWORD loadError = GetLastError();
    error = sessions.Resume(user->get());
    if (error == 0 && library != nullptr) return library;
    if (error == 0) error = loadError;
  }
  SetLastError(error);
  return nullptr;
}

HMODULE DeferredLibrary::LoadAsProcess() noexcept {
  std::array<wchar_t, MAX_PATH> path{};
  const UINT folder = GetSystemDirectoryW(path.data(), static_cast<UINT>(path.size()));
  if (folder == 0) return nullptr;
  if (folder + 1 + std::wcslen(fileName) >= path.size()) {
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return nullptr;
  }
  path[folder] = L'\\';
  std::wcscpy(&path[folder + 1], fileName);
  // The flag also limits the search for the library's imports to the system directory.
  const HMODULE library = LoadLibraryExW(path.data(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (library == nullptr) return nullptr;
  // If two threads load at once, only one keeps its reference, so that the count does not grow.
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
