#pragma once

#include <string>

#include <windows.h>

namespace Vx::Bench {

// Returns the full path of a file that the build puts at `relative` to this program's folder.
inline std::wstring Beside(const wchar_t* relative) {
  wchar_t program[MAX_PATH * 4];
  const std::wstring path(program, GetModuleFileNameW(nullptr, program, MAX_PATH * 4));
  return path.substr(0, path.rfind(L'\\') + 1) + relative;
}

}  // namespace Vx::Bench
