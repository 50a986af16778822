#include "support/probe.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string_view>

#include <windows.h>

namespace Vx::Tests {

namespace {

std::optional<std::string> Content(const std::wstring& path) {
  FILE* file = _wfopen(path.c_str(), L"rb");
  if (file == nullptr) return std::nullopt;
  std::string content;
  char piece[4096];
  while (const std::size_t got = std::fread(piece, 1, sizeof piece, file)) {
    content.append(piece, got);
  }
  static_cast<void>(std::fclose(file));
  return content;
}

std::wstring Wide(std::string_view utf8) {
  std::wstring text(utf8.size(), L'\0');
  const int length = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()),
                                         text.data(), static_cast<int>(text.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

ProbeReport Parse(const std::wstring& text) {
  ProbeReport report;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find(L'\n', begin), text.size());
    const std::wstring line = text.substr(begin, end - begin);
    begin = end + 1;
    const std::size_t equals = line.find(L'=');
    const std::wstring name = line.substr(0, equals);
    const std::wstring value = equals == std::wstring::npos ? L"" : line.substr(equals + 1);
    if (name == L"commandLine") {
      report.commandLine = value;
    } else if (name == L"workingDirectory") {
      report.workingDirectory = value;
    } else if (name == L"argument") {
      report.arguments.push_back(value);
    } else {
      report.environment.push_back(line);
    }
  }
  return report;
}

}  // namespace

bool ProbeReport::HasVariable(const std::wstring& entry) const {
  return std::find(environment.begin(), environment.end(), entry) != environment.end();
}

std::wstring TestFolder() {
  wchar_t self[MAX_PATH];
  const DWORD length = GetModuleFileNameW(nullptr, self, static_cast<DWORD>(std::size(self)));
  const std::wstring path(self, length);
  return path.substr(0, path.find_last_of(L'\\'));
}

std::wstring ProbePath() {
  return TestFolder() + L"\\probe.exe";
}

std::optional<ProbeReport> WaitForProbe(const std::wstring& path, std::chrono::milliseconds limit) {
  const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(limit.count());
  for (;;) {
    if (const auto content = Content(path)) return Parse(Wide(*content));
    if (GetTickCount64() >= end) return std::nullopt;
    Sleep(5);
  }
}

}  // namespace Vx::Tests
