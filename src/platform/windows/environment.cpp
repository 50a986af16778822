#include "platform/environment.h"

#include <algorithm>
#include <cwchar>
#include <limits>
#include <memory>

#include <windows.h>

#include <userenv.h>

#include "platform/windows/capabilities.h"

namespace Vx::Platform {

namespace {

using Text = Result<std::wstring>;

// The length limit of a UNICODE_STRING, including the terminator. Wine expands the beginning of a
// longer one and reports success.
constexpr std::size_t kMaxText = 32767;

// `buffer` must have room for more than `maxChars` characters, or for kMaxText.
Text TextIn(const std::vector<wchar_t>& buffer, std::size_t maxChars) {
  const auto end = std::find(buffer.begin(), buffer.end(), L'\0');
  const auto length = static_cast<std::size_t>(end - buffer.begin());
  if (length + 1 > maxChars) return Failure(ERROR_INSUFFICIENT_BUFFER);
  return std::wstring(buffer.begin(), end);
}

// One more than the caller allows, so that a string that fills the buffer is known to be too long.
std::size_t Room(std::size_t maxChars) {
  return std::min<std::size_t>(maxChars, std::numeric_limits<DWORD>::max() - 1) + 1;
}

DWORD Count(const std::vector<wchar_t>& buffer) {
  return static_cast<DWORD>(buffer.size());
}

Text ExpandInto(const std::wstring& text, std::size_t maxChars) {
  std::vector<wchar_t> buffer(Room(maxChars));
  const DWORD needed = ExpandEnvironmentStringsW(text.c_str(), buffer.data(), Count(buffer));
  if (needed == 0) return Failure(GetLastError());
  if (needed > buffer.size()) return Failure(ERROR_INSUFFICIENT_BUFFER);
  return TextIn(buffer, maxChars);
}

class RealEnvironment final : public Environment {
 public:
  Text Expand(const std::wstring& text, std::size_t maxChars) const override {
    if (text.size() >= kMaxText) return Failure(ERROR_FILENAME_EXCED_RANGE);
    // Most strings are short, and a buffer for the longest costs more than the call.
    if (auto brief = ExpandInto(text, std::min(maxChars, kShortPath))) return brief;
    return ExpandInto(text, maxChars);
  }

  Text ExpandForUser(RawHandle token, const std::wstring& text,
                     std::size_t maxChars) const override {
    if (text.size() >= kMaxText) return Failure(ERROR_FILENAME_EXCED_RANGE);
    // Room for the longest string, because Wine reports success for a buffer that is too small and
    // leaves a truncated string in it.
    std::vector<wchar_t> buffer(kMaxText);
    if (ExpandEnvironmentStringsForUserW(token, text.c_str(), buffer.data(), Count(buffer)) ==
        FALSE) {
      return Failure(GetLastError());
    }
    return TextIn(buffer, std::min(maxChars, kMaxText));
  }

  Result<std::vector<wchar_t>> Block(RawHandle token) const override {
    void* raw = nullptr;
    if (CreateEnvironmentBlock(&raw, token, FALSE) == FALSE) return Failure(GetLastError());
    const std::unique_ptr<void, decltype(&DestroyEnvironmentBlock)> owner(raw,
                                                                          &DestroyEnvironmentBlock);
    const auto* first = static_cast<const wchar_t*>(raw);
    const wchar_t* end = first;
    while (*end != L'\0') end += std::wcslen(end) + 1;
    // An empty block also needs two terminators.
    std::vector<wchar_t> block(static_cast<std::size_t>(end - first) + (end == first ? 2 : 1));
    std::copy(first, end, block.begin());
    return block;
  }
};

}  // namespace

Environment& WindowsEnvironment() {
  static RealEnvironment environment;
  return environment;
}

}  // namespace Vx::Platform
