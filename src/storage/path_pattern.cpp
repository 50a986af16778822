#include "storage/path_pattern.h"

namespace Vx::Tessel::Server::Storage {

namespace {

bool IsAsciiLetter(wchar_t c) {
  return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
}

}  // namespace

bool IsFilePath(std::wstring_view path) {
  if (path.size() >= 2 && path[1] == L':' && IsAsciiLetter(path[0])) path.remove_prefix(2);
  bool afterSeparator = false;
  for (const wchar_t c : path) {
    const bool separator = c == L'\\' || c == L'/';
    if (separator && afterSeparator) return false;
    if (!separator && std::wstring_view(L":*?\"<>|").find(c) != std::wstring_view::npos) {
      return false;
    }
    afterSeparator = separator;
  }
  return true;
}

}  // namespace Vx::Tessel::Server::Storage
