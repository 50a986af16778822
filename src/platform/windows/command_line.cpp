#include "platform/command_line.h"

#include <memory>

#include <windows.h>

#include <shellapi.h>

namespace Vx::Platform {

namespace {

struct LocalFreer {
  void operator()(wchar_t** words) const noexcept { LocalFree(words); }
};

}  // namespace

std::vector<std::wstring> SplitCommandLine(const std::wstring& commandLine) {
  int count = 0;
  const std::unique_ptr<wchar_t*, LocalFreer> words(
      CommandLineToArgvW(commandLine.c_str(), &count));
  if (!words || count < 0) return {};
  return {words.get(), words.get() + count};
}

}  // namespace Vx::Platform
