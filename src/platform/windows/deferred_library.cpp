#include "platform/windows/deferred_library.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cwchar>
#include <iterator>

#include <delayimp.h>

#include "platform/sessions.h"
#include "platform/unique_handle.h"
#include "platform/windows/capabilities.h"

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's name
extern "C" const IMAGE_DOS_HEADER __ImageBase;

namespace Vx::Platform {

HMODULE DeferredLibrary::Load() noexcept {
  if (const HMODULE known = loaded.load()) return known;
  // While impersonating, the path's drive letter could resolve to a drive that the user has mapped.
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
  // If two threads load the library at once, one frees its reference, so that the count does not
  // grow.
  HMODULE none = nullptr;
  if (!loaded.compare_exchange_strong(none, library)) FreeLibrary(library);
  return library;
}

void* DeferredLibrary::Address(const char* name) noexcept {
  const HMODULE library = Load();
  if (library == nullptr) return nullptr;
  return reinterpret_cast<void*>(GetProcAddress(library, name));
}

namespace {

constinit struct {
  std::string_view name;
  DeferredLibrary library;
} libraries[] = {
    {"bcrypt.dll", DeferredLibrary(L"bcrypt.dll")},
    {"crypt32.dll", DeferredLibrary(L"crypt32.dll")},
    {"oleaut32.dll", DeferredLibrary(L"oleaut32.dll")},
    {"userenv.dll", DeferredLibrary(L"userenv.dll")},
    {"version.dll", DeferredLibrary(L"version.dll")},
    {"wtsapi32.dll", DeferredLibrary(L"wtsapi32.dll")},
};

template <typename Value>
const Value* At(std::uintptr_t offset) {
  return reinterpret_cast<const Value*>(reinterpret_cast<const char*>(&__ImageBase) + offset);
}

using Function = INT_PTR WINAPI();

// Returns whether callers take zero from this function for success, so that a missing one must
// return an error.
bool ReturnsStatus(std::string_view function) {
  return function.starts_with("BCrypt") || function.ends_with("Element") ||
         function == "VariantClear";
}

// Both stand in for a missing function, whatever its arguments. The search for the function has set
// the last error.
INT_PTR WINAPI FailWithLastError() {
  return 0;
}
INT_PTR WINAPI FailWithStatus() {
  return static_cast<std::int32_t>(0xC0000135);  // STATUS_DLL_NOT_FOUND
}

}  // namespace

DeferredLibrary* DelayedLibrary(std::string_view file) noexcept {
  auto* const found = std::ranges::find(libraries, file, [](const auto& one) { return one.name; });
  return found != std::end(libraries) ? &found->library : nullptr;
}

}  // namespace Vx::Platform

// Resolves a delay-loaded function (see vx_delayed_import in cmake/options.cmake) at each call.
// The toolchain's own helper would search the program's folder first, and raise an exception that
// nothing here could handle. If the function is missing, the call fails as its callers expect. Does
// not store the address in `entry`, because the linker may have made the table read-only.
// https://learn.microsoft.com/cpp/build/reference/understanding-the-helper-function
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's name
extern "C" FARPROC WINAPI __delayLoadHelper2(PCImgDelayDescr from, FARPROC* entry) {
  using namespace Vx::Platform;
  const auto& thunk = At<IMAGE_THUNK_DATA>(from->rvaINT)[entry - At<FARPROC>(from->rvaIAT)];
  const auto* const imported = At<IMAGE_IMPORT_BY_NAME>(thunk.u1.AddressOfData);
  const std::string_view name = reinterpret_cast<const char*>(imported->Name);
  const std::string_view file = At<char>(from->rvaDLLName);
  auto* const library = DelayedLibrary(file);
  if (library == nullptr) SetLastError(ERROR_MOD_NOT_FOUND);
  auto* const function = library != nullptr ? library->Find<Function>(name.data()) : nullptr;
  if (function != nullptr) return function;
  return ReturnsStatus(name) ? &FailWithStatus : &FailWithLastError;
}
