// A lockdown policy library for tests: reports the mode in the variable VX_LOCKDOWN_MODE of its
// process, and fails all the same if '!' follows. Without the variable it fails and does not set
// the mode.
#include <cwchar>

#include <windows.h>

extern "C" HRESULT WINAPI WldpQueryWindowsLockdownMode(int* mode) {
  wchar_t text[16];
  const DWORD length = GetEnvironmentVariableW(L"VX_LOCKDOWN_MODE", text, 16);
  if (length == 0 || length >= 16) return E_NOTIMPL;
  wchar_t* end = nullptr;
  *mode = static_cast<int>(std::wcstol(text, &end, 10));
  return *end == L'!' ? E_NOTIMPL : S_OK;
}
