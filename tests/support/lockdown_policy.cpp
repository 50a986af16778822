// A lockdown policy library for tests: reports the mode in its process's variable VX_LOCKDOWN_MODE,
// and still fails if '!' follows. If the variable is missing, fails without setting the mode.
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
