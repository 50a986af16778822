#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "json/json_text.h"

namespace Vx::Host {

// Convert UTF-16 to UTF-8 and back. Malformed input becomes U+FFFD.
std::string Utf8(std::wstring_view text);
std::wstring Wide(std::string_view text);

// `text` as a terminal may show it: U+FFFD replaces control characters, the start of an escape
// sequence among them, and characters that end a line or change its direction. Clients choose many
// of the texts that are shown, and could otherwise forge lines or drive the terminal.
enum class LineBreaks { Replace, Keep };
std::string Printable(std::string_view text, LineBreaks breaks);

// The JSON text `json` as a terminal may show it: the same characters become escapes, so that a
// reader gets every string unchanged.
std::string PrintableJson(std::wstring_view json);

// `text` as the content of an element or an attribute of XML or HTML. Keeps line ends, as LF.
std::string Markup(std::string_view text);

// The content of a text file as UTF-16, without its byte-order mark. It is UTF-8 unless the mark
// says UTF-16. Throws std::runtime_error.
std::wstring ReadTextFile(const std::wstring& path);

// Replaces the file by `utf8`. Throws std::runtime_error.
void WriteTextFile(const std::wstring& path, const std::string& utf8);

// The most characters of a path, its end included.
inline constexpr std::size_t kLongestPath = 32768;

// The full form of `path`, which may be relative to the working directory.
std::wstring FullPath(const std::string& path);

// The same, for a file that has to exist. Throws std::runtime_error when it does not.
std::wstring FullPathOfFile(const std::string& path);

// A code or a status as Windows writes them, "0x80070005".
std::string CodeText(std::uint32_t number);

// This program, and the module beside it.
std::wstring OwnPath();
std::wstring DefaultModule();

// The text that an argument gives: literally, as @FILE, or as @- for standard input.
std::wstring TextOrFile(const std::string& argument);

// Returns `text` in a column of `width` characters, with one blank after a text that fills it.
std::string Cell(const std::string& text, std::size_t width);

// Returns the beginning of `text`, for a message.
std::wstring Shortened(std::wstring text);

// Returns a FILETIME as "2026-11-25T11:31:46.251".
std::wstring DateTimeText(std::uint64_t time);

// Returns this machine's local time as a FILETIME.
std::uint64_t LocalFileTime();

// Returns `text` as a JSON string.
std::wstring Quoted(const std::wstring& text);

// The text of a JSON string.
std::wstring TextOf(const Json::WideValue& text);

// Whether `unit` is one of 0-9, a-f and A-F.
bool IsHexDigit(wchar_t unit);

// Whether `text` is a UUID in its usual form, without braces.
bool IsUuid(std::wstring_view text);

// Returns the first member of a JSON object with exactly this name, or null.
const Json::WideValue* FindMember(const Json::WideValue& object, const std::wstring& name);

// Whether one letter added, dropped, changed or swapped with its neighbour turns one of two names,
// which are not very short, into the other.
bool IsProbablyMeant(std::wstring_view written, std::wstring_view name);

// "; did you mean \"x\"?" for the name that `written` probably is a slip of, otherwise empty.
std::string DidYouMean(const std::string& written, const std::vector<std::string>& names);

// Where and why `text` is not JSON: the module's parser refused it with `fault`.
std::string FaultText(const std::wstring& text, const Json::ParseFault& fault);

}  // namespace Vx::Host
