#pragma once

#include <cstring>
#include <string>

#include <windows.h>

namespace Vx::Bench {

// The full path of a benchmark's argument: a file of the build tree, so plain ASCII.
inline std::wstring FullPath(const char* argument) {
  wchar_t full[MAX_PATH * 4];
  const std::wstring path(argument, argument + std::strlen(argument));
  const DWORD length = GetFullPathNameW(path.c_str(), MAX_PATH * 4, full, nullptr);
  return {full, length};
}

}  // namespace Vx::Bench
