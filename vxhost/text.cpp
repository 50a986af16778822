#include "vxhost/text.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <windows.h>

#include "json/utf8.h"

#include <rapidjson/error/en.h>

namespace Vx::Host {

namespace {

constexpr wchar_t kReplacement = 0xFFFD;

// The control characters of ASCII and of Latin-1, and the separators and direction marks of
// Unicode.
bool DrivesATerminal(wchar_t unit) {
  return unit < 0x20 || (unit >= 0x7F && unit < 0xA0) || (unit >= 0x2028 && unit <= 0x202E) ||
         (unit >= 0x2066 && unit <= 0x2069) || unit == 0x061C || unit == 0x200E || unit == 0x200F;
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
    if (DrivesATerminal(shown[i])) shown[i] = kReplacement;
  }
  return Utf8(shown);
}

std::wstring ReadTextFile(const std::wstring& path) {
  std::ifstream file(path.c_str(), std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + Utf8(path));
  std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (bytes.rfind("\xEF\xBB\xBF", 0) == 0) bytes.erase(0, 3);
  return Wide(bytes);
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
  if (argument.rfind('@', 0) == 0) return ReadTextFile(FullPath(argument.substr(1)));
  return Wide(argument);
}

std::string FaultText(const std::wstring& text, const Json::ParseFault& fault) {
  const std::wstring before = text.substr(0, fault.offset);
  const auto line = std::count(before.begin(), before.end(), L'\n') + 1;
  const std::size_t column = before.size() - (before.rfind(L'\n') + 1) + 1;  // npos + 1 is 0
  const bool ours =
      fault.code == rapidjson::kParseErrorNone || fault.code == rapidjson::kParseErrorTermination;
  return "line " + std::to_string(line) + ", column " + std::to_string(column) + ": " +
         (ours ? "more than the module takes, see docs/protocol.md"
               : rapidjson::GetParseError_En(fault.code));
}

}  // namespace Vx::Host
