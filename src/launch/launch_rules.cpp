#include "launch/launch_rules.h"

#include <algorithm>

#include "platform/processes.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Platform::kMaxCommandLine;

constexpr std::wstring_view kSystemMarker = L"\\system32\\";
constexpr std::wstring_view kDefaultMarker = L"\\Default\\";
// The documented marker has two backslashes, so "C:\Users\defaultuser0" is a real user's profile.
constexpr std::wstring_view kSetUpMarker = L"\\\\defaultuser0";

constexpr std::wstring_view kPackages = L"\\AppData\\Local\\Packages\\";

// A variable whose value is different for a packaged app.
struct Redirection {
  std::wstring_view name;  // including the equals sign
  std::wstring_view part;  // the part of the value to replace
  std::wstring_view cache;
};

constexpr Redirection kRedirections[] = {
    {L"LOCALAPPDATA=", L"\\AppData\\Local", L"\\LocalCache\\Local"},
    {L"APPDATA=", L"\\AppData\\Roaming", L"\\LocalCache\\Roaming"},
};

std::wstring Quoted(std::wstring_view path) {
  return std::wstring(L"\"").append(path) + L'"';
}

std::wstring Redirected(std::wstring_view entry, std::wstring_view packageFolder) {
  std::wstring result(entry);
  for (const auto& rule : kRedirections) {
    if (!entry.starts_with(rule.name)) continue;
    const auto at = result.find(rule.part, rule.name.size());
    if (at == std::wstring::npos) continue;
    std::wstring replacement(kPackages);
    replacement += packageFolder;
    replacement += rule.cache;
    result.replace(at, rule.part.size(), replacement);
  }
  return result;
}

bool CanBePath(std::wstring_view text) {
  return !text.empty() && text.size() <= kMaxPath;
}

}  // namespace

std::optional<std::wstring> AppCommandLine(std::wstring_view executable,
                                           std::wstring_view parameter) {
  if (std::max(executable.size(), parameter.size()) > kMaxCommandLine) return std::nullopt;
  if (parameter.empty()) return std::wstring(executable);
  std::wstring line = Quoted(executable);
  if (line.size() + 1 + parameter.size() > kMaxCommandLine) return std::nullopt;
  line += L' ';
  line += parameter;
  return line;
}

std::wstring SessionCommandLine(std::wstring_view executable, std::wstring_view arguments) {
  std::wstring line = Quoted(executable.substr(0, kMaxCommandLine));
  if (line.size() > kMaxCommandLine) line.resize(kMaxCommandLine);
  // Compared as a difference, so that the sum cannot overflow.
  if (!arguments.empty() && line.size() < kMaxCommandLine &&
      arguments.size() <= kMaxCommandLine - line.size() - 1) {
    line += L' ';
    line += arguments;
  }
  return line;
}

std::wstring SessionWorkingDirectory(std::wstring_view wanted, std::wstring_view executable) {
  if (CanBePath(wanted)) return std::wstring(wanted);
  if (CanBePath(executable)) return std::wstring(FolderOf(executable));
  return {};
}

std::wstring_view FolderOf(std::wstring_view path) {
  const auto at = path.rfind(L'\\');
  if (at == std::wstring_view::npos) return {};
  // "C:" alone means the current folder on that drive.
  const bool driveRoot = at == 2 && path[1] == L':';
  return path.substr(0, driveRoot ? at + 1 : at);
}

std::wstring_view FileNameOf(std::wstring_view path) {
  return path.substr(path.rfind(L'\\') + 1);
}

std::vector<wchar_t> EnvironmentForPackage(const std::vector<wchar_t>& block,
                                           std::wstring_view packageFolder) {
  std::vector<wchar_t> result;
  result.reserve(block.size() + 256);
  auto at = block.begin();
  while (at != block.end() && *at != L'\0') {
    const auto end = std::find(at, block.end(), L'\0');
    const std::wstring entry =
        Redirected(std::wstring_view(&*at, static_cast<std::size_t>(end - at)), packageFolder);
    result.insert(result.end(), entry.begin(), entry.end());
    result.push_back(L'\0');
    at = end == block.end() ? end : end + 1;
  }
  // An empty block is two terminators, because Windows reads an entry before it looks for the end.
  if (result.empty()) result.push_back(L'\0');
  result.push_back(L'\0');
  return result;
}

bool IsRealUserProfile(std::wstring_view profile) {
  if (profile.empty()) return false;
  const auto holds = [profile](std::wstring_view marker) {
    return profile.find(marker) != std::wstring_view::npos;
  };
  return !holds(kSystemMarker) && !holds(kDefaultMarker) && !holds(kSetUpMarker);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
