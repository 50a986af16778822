#pragma once

#include <string>

#include <windows.h>

namespace Vx::Bench {

// Returns the full path of `relative`, a path from this program's folder to a file of the build.
inline std::wstring Beside(const wchar_t* relative) {
  wchar_t program[MAX_PATH * 4];
  const std::wstring path(program, GetModuleFileNameW(nullptr, program, MAX_PATH * 4));
  return path.substr(0, path.rfind(L'\\') + 1) + relative;
}

}  // namespace Vx::Bench
