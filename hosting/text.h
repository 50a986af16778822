#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "json/json_text.h"

namespace Vx::Hosting {

// Convert between UTF-16 and UTF-8. Malformed input becomes U+FFFD.
std::string Utf8(std::wstring_view text);
std::wstring Wide(std::string_view text);

// Returns `text` made safe for a terminal: U+FFFD replaces control characters, including those that
// start escape sequences, and characters that break a line or change its direction. Many strings
// come from clients, which could otherwise forge lines or control the terminal.
enum class LineBreaks { Replace, Keep };
std::string Printable(std::string_view text, LineBreaks breaks);

// Returns `json` made safe for a terminal by escaping the same characters, so that a parser still
// reads every string unchanged. Line feeds are kept.
std::string PrintableJson(std::wstring_view json);

// Returns the content of a text file without its byte-order mark. The file is UTF-8 unless the mark
// says UTF-16. Throws std::runtime_error if it cannot be read.
std::wstring ReadTextFile(const std::wstring& path);

// Overwrites the file with `utf8`. Throws std::runtime_error on failure.
void WriteTextFile(const std::wstring& path, const std::string& utf8);

// The maximum length of a path in characters, including the terminator.
inline constexpr std::size_t kLongestPath = 32768;

// Returns the full path of `path`, which may be relative to the working directory. Throws
// std::runtime_error if it is not a valid path.
std::wstring FullPath(const std::string& path);

// Like FullPath, but for an existing file. Throws std::runtime_error if there is none.
std::wstring FullPathOfFile(const std::string& path);

// Formats a code or status in hexadecimal, as in "0x80070005".
std::string CodeText(std::uint32_t number);

// An error that Windows reported. The message contains its number. Windows' text for the number
// depends on the machine's language, so it is shown only to people, never to programs.
class WindowsError : public std::runtime_error {
 public:
  // The message is "WHAT (error N)", followed by `advice`.
  WindowsError(const std::string& what, std::uint32_t error, const std::string& advice = {})
      : std::runtime_error(what + " (error " + std::to_string(error) + ")" + advice), code(error) {}

  std::uint32_t Code() const { return code; }

 private:
  std::uint32_t code;
};

// Returns Windows' message for an error, such as "Access denied".
std::string ErrorText(std::uint32_t error);

// Return the full paths of this program and of the module in the same folder.
std::wstring OwnPath();
std::wstring DefaultModule();

// Returns the text that an argument specifies: the argument itself, the content of a file for
// @FILE, or standard input for @-. Throws std::runtime_error if it cannot be read.
std::wstring TextOrFile(const std::string& argument);

// Returns `text` padded to `width` characters, and followed by at least one space.
std::string Cell(const std::string& text, std::size_t width);

// Returns `text` for use in a message, truncated to 60 characters plus an ellipsis if longer.
std::wstring Shortened(std::wstring text);

// Formats a FILETIME as "2026-11-25T11:31:46.251".
std::wstring DateTimeText(std::uint64_t time);

// Returns the value of a JSON string.
std::wstring TextOf(const Json::WideValue& text);

bool IsHexDigit(wchar_t unit);

// Returns whether `text` is a UUID in its usual form, without braces.
bool IsUuid(std::wstring_view text);

// Returns the value of the first member with exactly this name, or null.
const Json::WideValue* FindMember(const Json::WideValue& object, const std::wstring& name);

// Returns whether the names differ by at most one letter added, dropped, changed or swapped with
// its neighbor. Always false for names shorter than three letters.
bool IsProbablyMeant(std::wstring_view written, std::wstring_view name);

// Returns "; did you mean \"x\"?" with the closest of `names`, or an empty string if none is close.
std::string DidYouMean(const std::string& written, const std::vector<std::string>& names);

// Describes where and why the module's parser rejected `text`.
std::string FaultText(const std::wstring& text, const Json::ParseFault& fault);

}  // namespace Vx::Hosting
