#include "hosting/text.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <fstream>
#include <iostream>
#include <iterator>
#include <numeric>
#include <span>
#include <utility>

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include "json/utf8.h"
#include "platform/shown_text.h"

#include <rapidjson/error/en.h>

namespace Vx::Hosting {

namespace {

// Decodes UTF-8, or UTF-16 as Windows PowerShell writes it, with a byte-order mark.
std::wstring FromBytes(const std::string& bytes) {
  auto marked = Json::DecodeText(std::as_bytes(std::span(bytes)));
  return marked ? *std::move(marked) : Wide(bytes);
}

// Returns how many letters must be inserted, removed, replaced or swapped with their neighbor to
// turn one string into the other.
std::size_t Distance(std::wstring_view one, std::wstring_view other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  std::vector<std::size_t> last = row;
  std::vector<std::size_t> beforeLast = row;
  for (std::size_t i = 1; i <= one.size(); ++i) {
    row[0] = i;
    for (std::size_t j = 1; j <= other.size(); ++j) {
      const bool same = one[i - 1] == other[j - 1];
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (same ? 0 : 1)});
      if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1]) {
        row[j] = std::min(row[j], beforeLast[j - 2] + 1);
      }
    }
    beforeLast.swap(last);
    last.swap(row);
    row.resize(last.size());
  }
  return last.back();
}

// Both cmd and PowerShell remove the quotes from JSON that is typed without escapes.
bool LostItsQuotes(const std::string& argument) {
  return argument.starts_with('\'') ||
         (argument.starts_with('{') && argument.ends_with('}') &&
          argument.find(':') != std::string::npos && argument.find('"') == std::string::npos);
}

}  // namespace

std::string Utf8(std::wstring_view text) {
  return Json::ToUtf8(text);
}

std::wstring Wide(std::string_view text) {
  return Json::ToWide(text);
}

std::string Printable(std::string_view text, LineBreaks breaks) {
  std::wstring shown = Wide(text);
  for (std::size_t i = 0; i < shown.size(); ++i) {
    const bool laysOut =
        shown[i] == L'\n' || shown[i] == L'\t' || shown.compare(i, 2, L"\r\n") == 0;
    if (laysOut && breaks == LineBreaks::Keep) continue;
    if (Platform::IsUnsafeToShow(shown[i])) shown[i] = Platform::kShownInstead;
  }
  return Utf8(shown);
}

std::string PrintableJson(std::wstring_view json) {
  std::wstring shown;
  shown.reserve(json.size());
  for (const wchar_t unit : json) {
    if (unit == L'\n' || !Platform::IsUnsafeToShow(unit)) {
      shown += unit;
      continue;
    }
    wchar_t escape[8];
    static_cast<void>(
        std::swprintf(escape, std::size(escape), L"\\u%04X", static_cast<unsigned>(unit)));
    shown += escape;
  }
  return Utf8(shown);
}

std::wstring ReadTextFile(const std::wstring& path) {
  std::ifstream file(path.c_str(), std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + Utf8(path));
  const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  return FromBytes(bytes);
}

void WriteTextFile(const std::wstring& path, const std::string& utf8) {
  std::ofstream file(path.c_str(), std::ios::binary | std::ios::trunc);
  file << utf8;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + Utf8(path));
}

std::string CodeText(std::uint32_t number) {
  char text[16];
  static_cast<void>(std::snprintf(text, sizeof text, "0x%08X", number));
  return text;
}

std::string ErrorText(std::uint32_t error) {
  wchar_t text[512] = {};
  DWORD length = FormatMessageW(
      FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
      nullptr, error, 0, text, static_cast<DWORD>(std::size(text)), nullptr);
  while (length > 0 && (text[length - 1] == L' ' || text[length - 1] == L'.')) --length;
  return length == 0 ? "it has no text" : Utf8(std::wstring_view(text, length));
}

std::wstring OwnPath() {
  std::wstring program(kLongestPath, L'\0');
  program.resize(GetModuleFileNameW(nullptr, program.data(), DWORD{kLongestPath}));
  return program;
}

std::wstring DefaultModule() {
  const std::wstring program = OwnPath();
  return program.substr(0, program.rfind(L'\\') + 1) + L"OrvaneService.dll";
}

std::wstring FullPath(const std::string& path) {
  std::wstring full(kLongestPath, L'\0');
  full.resize(GetFullPathNameW(Wide(path).c_str(), DWORD{kLongestPath}, full.data(), nullptr));
  if (full.empty()) throw std::runtime_error(path + " is not a path");
  return full;
}

std::wstring FullPathOfFile(const std::string& path) {
  std::wstring full = FullPath(path);
  const DWORD attributes = GetFileAttributesW(full.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    throw std::runtime_error("there is no file " + Utf8(full));
  }
  return full;
}

std::wstring TextOrFile(const std::string& argument) {
  if (LostItsQuotes(argument)) {
    throw std::runtime_error("the shell has changed the quotes of the JSON: it arrived as " +
                             argument + "; use @FILE or @-");
  }
  if (argument == "@-") {
    // In text mode, reading would stop at byte 0x1A, which occurs inside UTF-16 characters.
    if (_setmode(_fileno(stdin), _O_BINARY) == -1) throw std::runtime_error("no standard input");
    return FromBytes(std::string(std::istreambuf_iterator<char>(std::cin), {}));
  }
  if (argument.rfind('@', 0) == 0) return ReadTextFile(FullPath(argument.substr(1)));
  return Wide(argument);
}

std::string Cell(const std::string& text, std::size_t width) {
  return text + std::string(text.size() < width ? width - text.size() : 1, ' ');
}

std::wstring Shortened(std::wstring text) {
  constexpr std::size_t kMost = 60;
  if (text.size() > kMost) text.replace(kMost, text.npos, L"...");
  return text;
}

std::wstring DateTimeText(std::uint64_t time) {
  const FILETIME fileTime{static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
  SYSTEMTIME moment{};
  FileTimeToSystemTime(&fileTime, &moment);
  wchar_t text[32];
  static_cast<void>(std::swprintf(text, std::size(text), L"%04u-%02u-%02uT%02u:%02u:%02u.%03u",
                                  moment.wYear, moment.wMonth, moment.wDay, moment.wHour,
                                  moment.wMinute, moment.wSecond, moment.wMilliseconds));
  return text;
}

std::wstring TextOf(const Json::WideValue& text) {
  return {text.GetString(), text.GetStringLength()};
}

bool IsHexDigit(wchar_t unit) {
  return (unit >= L'0' && unit <= L'9') || (unit >= L'a' && unit <= L'f') ||
         (unit >= L'A' && unit <= L'F');
}

bool IsUuid(std::wstring_view text) {
  constexpr std::wstring_view kForm = L"00000000-0000-0000-0000-000000000000";
  return std::ranges::equal(text, kForm, [](wchar_t have, wchar_t form) {
    return form == L'-' ? have == L'-' : IsHexDigit(have);
  });
}

const Json::WideValue* FindMember(const Json::WideValue& object, const std::wstring& name) {
  const auto found = object.FindMember(name.c_str());
  return found == object.MemberEnd() ? nullptr : &found->value;
}

bool IsProbablyMeant(std::wstring_view written, std::wstring_view name) {
  const auto [shorter, longer] = std::minmax(written.size(), name.size());
  return shorter >= 3 && longer - shorter <= 1 && Distance(written, name) <= 1;
}

std::string DidYouMean(const std::string& written, const std::vector<std::string>& names) {
  constexpr std::size_t kLongestName = 64;  // the comparison's cost is the product of the lengths
  if (written.size() > kLongestName) return {};
  std::size_t least = std::max<std::size_t>(2, written.size() / 3) + 1;
  const std::string* closest = nullptr;
  for (const std::string& name : names) {
    const std::size_t distance = Distance(Wide(written), Wide(name));
    if (distance >= std::min(least, name.size())) continue;
    least = distance;
    closest = &name;
  }
  return closest == nullptr ? std::string() : "; did you mean \"" + *closest + "\"?";
}

std::string FaultText(const std::wstring& text, const Json::ParseFault& fault) {
  const std::wstring before = text.substr(0, fault.offset);
  const auto line = std::count(before.begin(), before.end(), L'\n') + 1;
  const std::size_t column = before.size() - (before.rfind(L'\n') + 1) + 1;  // npos + 1 is 0
  const bool ours =
      fault.code == rapidjson::kParseErrorNone || fault.code == rapidjson::kParseErrorTermination;
  return "line " + std::to_string(line) + ", column " + std::to_string(column) + ": " +
         (ours ? "more than the module accepts, see docs/protocol.md"
               : rapidjson::GetParseError_En(fault.code));
}

}  // namespace Vx::Hosting
