// A program for tests to start, which reports how it was started, in UTF-8 lines "name=value":
// commandLine, workingDirectory, desktop, account (its SID), session, one "argument" for each of
// its arguments, and the variable VX_PROBE if set. The report appears, already complete, in the
// file named by the first argument, if that is a full path, or else as "<program>.out".
//
// If another argument is "wait:NAME", it then runs until the named event is signaled.
#include <cstdio>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

#include <sddl.h>

namespace {

constexpr std::wstring_view kWait = L"wait:";
constexpr DWORD kLongestWait = 60'000;  // milliseconds, so that a forgotten probe ends

std::string Utf8(std::wstring_view text) {
  std::string bytes(text.size() * 3, '\0');
  const int length =
      WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), bytes.data(),
                          static_cast<int>(bytes.size()), nullptr, nullptr);
  bytes.resize(static_cast<std::size_t>(length));
  return bytes;
}

std::string Line(std::wstring_view name, std::wstring_view value) {
  return Utf8(name) + "=" + Utf8(value) + "\n";
}

std::wstring Account() {
  alignas(TOKEN_USER) BYTE user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  DWORD size = 0;
  HANDLE token = nullptr;
  wchar_t* sid = nullptr;
  OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
  GetTokenInformation(token, TokenUser, user, sizeof user, &size);
  CloseHandle(token);
  if (ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(user)->User.Sid, &sid) == FALSE)
    return L"";
  std::wstring text = sid;
  LocalFree(sid);
  return text;
}

std::string Report(int count, wchar_t** arguments) {
  std::vector<wchar_t> buffer(32'768);
  std::string report = Line(L"commandLine", GetCommandLineW());
  GetCurrentDirectoryW(static_cast<DWORD>(buffer.size()), buffer.data());
  report += Line(L"workingDirectory", buffer.data());
  STARTUPINFOW startup{};
  GetStartupInfoW(&startup);
  report += Line(L"desktop", startup.lpDesktop != nullptr ? startup.lpDesktop : L"");
  DWORD session = 0;
  ProcessIdToSessionId(GetCurrentProcessId(), &session);
  report += Line(L"account", Account()) + Line(L"session", std::to_wstring(session));
  for (int i = 1; i < count; ++i) report += Line(L"argument", arguments[i]);
  const DWORD length =
      GetEnvironmentVariableW(L"VX_PROBE", buffer.data(), static_cast<DWORD>(buffer.size()));
  if (length > 0) report += Line(L"VX_PROBE", {buffer.data(), length});
  return report;
}

bool Write(const std::wstring& path, const std::string& report) {
  const std::wstring part = path + L".part";
  FILE* file = _wfopen(part.c_str(), L"wb");
  if (file == nullptr) return false;
  const bool written = std::fwrite(report.data(), 1, report.size(), file) == report.size();
  const bool closed = std::fclose(file) == 0;
  return written && closed &&
         MoveFileExW(part.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING) != FALSE;
}

void WaitFor(const wchar_t* eventName) {
  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, eventName);
  if (event == nullptr) return;
  WaitForSingleObject(event, kLongestWait);
  CloseHandle(event);
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  const std::string report = Report(count, arguments);
  const bool named = count > 1 && std::wstring_view(arguments[1]).substr(1, 2) == L":\\";
  if (!named || !Write(arguments[1], report)) {
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, static_cast<DWORD>(std::size(self)));
    if (!Write(std::wstring(self) + L".out", report)) return 1;
  }
  for (int i = 1; i < count; ++i) {
    const std::wstring_view argument = arguments[i];
    if (argument.starts_with(kWait)) WaitFor(arguments[i] + kWait.size());
  }
  return 0;
}
