#include "platform/command_line.h"

#include <windows.h>

#include <shellapi.h>

#include "platform/windows/local_memory.h"

namespace Vx::Platform {

std::vector<std::wstring> SplitCommandLine(const std::wstring& commandLine) {
  int count = 0;
  const UniqueLocalMemory<wchar_t*> words(CommandLineToArgvW(commandLine.c_str(), &count));
  if (!words || count < 0) return {};
  return {words.get(), words.get() + count};
}

}  // namespace Vx::Platform
