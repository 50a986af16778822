#include "security/path_rules.h"

#include <algorithm>

namespace Vx::Tessel::Security {

namespace {

constexpr std::wstring_view kWindowsAppsOnDrive = L":\\WindowsApps\\";
constexpr std::wstring_view kWindowsAppsBelow = L"WindowsApps\\";
constexpr std::wstring_view kNeverInNames = L"/:*?\"<>|";

constexpr wchar_t Fold(wchar_t c) noexcept {
  return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

bool IsPlainName(std::wstring_view name) noexcept {
  // Windows drops trailing spaces and dots from a name, so such a name refers to another file. This
  // also excludes "." and "..".
  if (name.empty() || name.back() == L'.' || name.back() == L' ') return false;
  return std::ranges::all_of(name, [](wchar_t c) {
    return c >= L' ' && kNeverInNames.find(c) == std::wstring_view::npos;
  });
}

}  // namespace

bool SameIgnoringCase(std::wstring_view left, std::wstring_view right) noexcept {
  return std::ranges::equal(left, right, {}, &Fold, &Fold);
}

bool BeginsWith(std::wstring_view text, std::wstring_view prefix) noexcept {
  return SameIgnoringCase(text.substr(0, prefix.size()), prefix);
}

bool IsDrivePath(std::wstring_view path) noexcept {
  if (path.size() < 3 || path[1] != L':') return false;
  if (path[2] != L'\\' && path[2] != L'/') return false;
  const wchar_t letter = Fold(path[0]);
  return letter >= L'a' && letter <= L'z';
}

bool IsPlainPath(std::wstring_view path) noexcept {
  if (!IsDrivePath(path) || path[2] != L'\\') return false;
  path.remove_prefix(3);
  for (;;) {
    const auto end = path.find(L'\\');
    if (!IsPlainName(path.substr(0, end))) return false;
    if (end == std::wstring_view::npos) return true;
    path.remove_prefix(end + 1);
  }
}

std::optional<std::wstring> DriveWindowsAppsFolder(std::wstring_view path) {
  const auto found = path.find(kWindowsAppsOnDrive);
  if (found == std::wstring_view::npos) return std::nullopt;
  return std::wstring(path.substr(0, found + kWindowsAppsOnDrive.size() - 1));
}

std::optional<std::wstring> WindowsAppsFolderBelow(std::wstring_view prefix,
                                                   std::wstring_view path) {
  if (!BeginsWith(path, prefix)) return std::nullopt;
  if (!BeginsWith(path.substr(prefix.size()), kWindowsAppsBelow)) return std::nullopt;
  return std::wstring(path.substr(0, prefix.size() + kWindowsAppsBelow.size() - 1));
}

}  // namespace Vx::Tessel::Security
