#include "security/command_line_check.h"

#include "platform/processes.h"

namespace Vx::Tessel::Security {

namespace {

// Windows parses the first word of a command line by special rules (it ignores quotes inside the
// word). Another word in front turns the original first word into an ordinary argument.
constexpr wchar_t kWordInFront[] = L"test.exe ";
constexpr std::size_t kMaxCommandLine = 32767;

}  // namespace

bool IsCommandLineTrusted(VxAuthenticodeFacadeBase& facade,
                          const std::wstring& commandLine) noexcept {
  try {
    if (commandLine.size() > kMaxCommandLine) return false;
    // Windows stops reading at a NUL, so the text after it would not be checked.
    if (commandLine.find(L'\0') != std::wstring::npos) return false;
    const auto words = Platform::SplitCommandLine(kWordInFront + commandLine);
    return words.size() > 1 && facade.IsFileTrusted(words[1].c_str());
  } catch (...) {
    return false;
  }
}

}  // namespace Vx::Tessel::Security
