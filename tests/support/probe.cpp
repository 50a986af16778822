#include "support/probe.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string_view>
#include <system_error>

#include <windows.h>

#include "support/temp_folder.h"
#include "support/threads.h"

namespace Vx::Tests {

namespace {

std::wstring Wide(std::string_view utf8) {
  std::wstring text(utf8.size(), L'\0');
  const int length = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()),
                                         text.data(), static_cast<int>(text.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

ProbeReport Parse(std::wstring_view text) {
  ProbeReport report;
  for (std::size_t end = 0; (end = text.find(L'\n')) != text.npos; text.remove_prefix(end + 1)) {
    const std::wstring line(text.substr(0, end));
    const std::size_t value = line.find(L'=') + 1;
    if (line.starts_with(L"commandLine=")) report.commandLine = line.substr(value);
    if (line.starts_with(L"workingDirectory=")) report.workingDirectory = line.substr(value);
    if (line.starts_with(L"argument=")) report.arguments.push_back(line.substr(value));
    report.lines.push_back(line);
  }
  return report;
}

}  // namespace

std::wstring TestFolder() {
  wchar_t self[MAX_PATH];
  const DWORD length = GetModuleFileNameW(nullptr, self, static_cast<DWORD>(std::size(self)));
  const std::wstring path(self, length);
  return path.substr(0, path.find_last_of(L'\\'));
}

std::wstring BuiltFile(const std::wstring& name) {
  std::wstring path = TestFolder() + L"\\" + name;
  if (GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES) return path;
  static_cast<void>(
      std::fprintf(stderr, "%ls is missing: build it with scripts/build\n", path.c_str()));
  std::exit(1);  // NOLINT(concurrency-mt-unsafe): the test cannot go on
}

std::wstring ProbePath() {
  return BuiltFile(L"probe.exe");
}

std::wstring ModulePath() {
  return BuiltFile(L"..\\bin\\OrvaneService.dll");
}

std::wstring TestModulePath() {
  return BuiltFile(L"..\\bin\\test\\OrvaneService.dll");
}

StartedProcess StartProcess(std::wstring commandLine, std::uint32_t flags) {
  STARTUPINFOW start{};
  start.cb = sizeof start;
  PROCESS_INFORMATION made{};
  if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, flags, nullptr, nullptr,
                     &start, &made) == FALSE) {
    // Under Wine, 1359 means that the new process was killed before any of its code ran.
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "no process");
  }
  const Platform::UniqueHandle thread(made.hThread);
  return {Platform::UniqueHandle(made.hProcess), made.dwProcessId};
}

std::wstring Escaped(const std::wstring& path) {
  std::wstring text;
  for (const wchar_t unit : path) text.append(unit == L'\\' ? 2 : 1, unit);
  return text;
}

std::optional<ProbeReport> WaitForProbe(const std::wstring& path, std::chrono::milliseconds limit) {
  const std::filesystem::path file(path);
  if (!Eventually([&] { return std::ifstream(file).good(); }, limit)) return std::nullopt;
  return Parse(Wide(ReadText(file)));
}

}  // namespace Vx::Tests
