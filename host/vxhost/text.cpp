#include "host/vxhost/text.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <windows.h>

#include "json/json_text.h"

#include <rapidjson/error/en.h>

namespace Vx::Host {

std::string Utf8(std::wstring_view text) {
  const int units = static_cast<int>(text.size());
  std::string result(static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), units,
                                                                  nullptr, 0, nullptr, nullptr)),
                     '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), units, result.data(),
                      static_cast<int>(result.size()), nullptr, nullptr);
  return result;
}

std::wstring Wide(std::string_view text) {
  const int bytes = static_cast<int>(text.size());
  std::wstring result(
      static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), bytes, nullptr, 0)),
      L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), bytes, result.data(),
                      static_cast<int>(result.size()));
  return result;
}

std::wstring ReadTextFile(const std::wstring& path) {
  std::ifstream file(path.c_str(), std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + Utf8(path));
  std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (bytes.rfind("\xEF\xBB\xBF", 0) == 0) bytes.erase(0, 3);
  return Wide(bytes);
}

std::string JsonFault(const std::wstring& text) {
  Json::WideDocument document;
  document.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
  if (!document.HasParseError()) return "more than the module takes, see docs/protocol.md";
  const std::wstring before = text.substr(0, document.GetErrorOffset());
  const auto line = std::count(before.begin(), before.end(), L'\n') + 1;
  const std::size_t column = before.size() - (before.rfind(L'\n') + 1) + 1;  // npos + 1 is 0
  return "line " + std::to_string(line) + ", column " + std::to_string(column) + ": " +
         rapidjson::GetParseError_En(document.GetParseError());
}

}  // namespace Vx::Host
