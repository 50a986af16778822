#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "events/delivery_rules.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/wide_input.h"
#include "launch/launch_rules.h"
#include "platform/processes.h"

// Fuzzes the parts of a launch that a client's text controls: delay, command line, folder and
// environment.

namespace {

using Vx::Fuzz::Check;
using Vx::Platform::kMaxCommandLine;
using namespace Vx::Tessel::Server::Services::Orvane;

// Returns the leading int as parsed by the C library. Empty if there is none or it overflows.
std::optional<int> Expected(const std::wstring& text) {
  wchar_t* end = nullptr;
  errno = 0;
  const long long value = std::wcstoll(text.c_str(), &end, 10);
  if (end == text.c_str() || errno == ERANGE || value < INT_MIN || value > INT_MAX) {
    return std::nullopt;
  }
  return static_cast<int>(value);
}

void CheckDelay(const std::wstring& text) {
  const std::optional<int> seconds = LeadingInteger(text);
  Check(seconds == Expected(text), "a delay is what the C library reads");
  if (!seconds) return;
  Check(!IsOverdue(*seconds, DelayLength(*seconds).count()), "a delay that was waited out is kept");
}

void CheckCommandLines(std::wstring_view program, std::wstring_view arguments) {
  const std::wstring quoted = L"\"" + std::wstring(program) + L"\"";
  const std::wstring whole = arguments.empty() ? quoted : quoted + L" " + std::wstring(arguments);
  const std::wstring session = SessionCommandLine(program, arguments);
  Check(session == (whole.size() <= kMaxCommandLine ? whole : quoted.substr(0, kMaxCommandLine)),
        "arguments are passed whole or not at all");
  const auto app = AppCommandLine(program, arguments);
  if (!arguments.empty()) {
    Check(app == (whole.size() <= kMaxCommandLine ? std::optional(whole) : std::nullopt),
          "a parameter is passed whole or refused");
  }
  const std::wstring folder = SessionWorkingDirectory(arguments, program);
  Check(folder.size() <= kMaxPath, "a folder can be a path");
  Check(folder == arguments || program.starts_with(folder), "a folder is given or the program's");
  Check(program.ends_with(FileNameOf(program)), "a file name ends its path");
}

std::size_t Entries(const std::vector<wchar_t>& block) {
  std::size_t count = 0;
  auto at = block.begin();
  while (at != block.end() && *at != L'\0') {
    ++count;
    at = std::find(at, block.end(), L'\0');
    if (at != block.end()) ++at;
  }
  return count;
}

void CheckEnvironment(std::wstring_view text) {
  const std::vector<wchar_t> block(text.begin(), text.end());
  const std::vector<wchar_t> changed = EnvironmentForPackage(block, L"App_1");
  Check(changed.size() >= 2 && changed.back() == L'\0' && changed[changed.size() - 2] == L'\0',
        "a block ends with two NULs");
  Check(Entries(changed) == Entries(block), "no entry is lost or made");
  static_cast<void>(IsRealUserProfile(text));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::wstring text = Vx::Fuzz::WideInput(data, size);
  CheckDelay(text);
  CheckEnvironment(text);
  const std::size_t at = std::min(text.find(L'|'), text.size());
  const std::wstring_view program = std::wstring_view(text).substr(0, at);
  CheckCommandLines(program, std::wstring_view(text).substr(std::min(at + 1, text.size())));
  return 0;
}
