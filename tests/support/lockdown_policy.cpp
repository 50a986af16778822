// A lockdown policy library that reports the mode in the environment variable VX_LOCKDOWN_MODE, but
// returns failure if '!' follows. Without the variable, it fails without setting a mode.
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
