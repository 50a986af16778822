#include "vxhost/common/console.h"

#include <algorithm>
#include <span>

#include <windows.h>

#include <io.h>

namespace Vx::Hosting::Tool {

namespace {

struct Meaning {
  std::uint32_t code;
  const char* text;
};

constexpr Meaning kCodes[] = {
    {0x00000000, "done"},
    {0x20000001, "no such command"},
    {0x20000002, "argument missing or command failed"},
    {0x20000003, "the request is not valid JSON"},
    {0x20000004, "no package of the family is installed"},
    {0x20000005, "the console user cannot be impersonated"},
    {0x20000006, "unknown catalogEvent"},
    {0x20000007, "unknown action"},
    {0x20000008, "internal failure"},
    {0x20000009, "Windows Runtime failure, or subscribed already"},
    {0x2000000A, "this Windows has no interactive users"},
};

constexpr Meaning kResults[] = {
    {0x80004001, "E_NOTIMPL"},
    {0x80004002, "E_NOINTERFACE"},
    {0x80004003, "E_POINTER"},
    {0x80004004, "E_ABORT"},
    {0x80004005, "E_FAIL"},
    {0x8000000B, "E_BOUNDS"},
    {0x8000FFFF, "E_UNEXPECTED"},
    {0x80040154, "REGDB_E_CLASSNOTREG"},
    {0x80070002, "ERROR_FILE_NOT_FOUND"},
    {0x80070003, "ERROR_PATH_NOT_FOUND"},
    {0x80070005, "E_ACCESSDENIED"},
    {0x80070006, "E_HANDLE"},
    {0x8007000D, "ERROR_INVALID_DATA"},
    {0x8007000E, "E_OUTOFMEMORY"},
    {0x80070020, "ERROR_SHARING_VIOLATION"},
    {0x80070057, "E_INVALIDARG"},
    {0x80070490, "ERROR_NOT_FOUND"},
    {0x80073CF1, "ERROR_PACKAGE_NOT_FOUND"},
    {0x80073CF9, "ERROR_INSTALL_FAILED"},
    {0x80073CFA, "ERROR_REMOVE_FAILED"},
    {0x80092003, "CRYPT_E_FILE_ERROR"},
    {0x80096010, "TRUST_E_BAD_DIGEST"},
    {0x800B0100, "TRUST_E_NOSIGNATURE"},
    {0x800B0101, "CERT_E_EXPIRED"},
    {0x800B0109, "CERT_E_UNTRUSTEDROOT"},
    {0x800B010A, "CERT_E_CHAINING"},
};

// The terminal's original state. Global, because the Ctrl+C handler runs on its own thread.
UINT codePageBefore = 0;
DWORD modeBefore = 0;
bool modeChanged = false;

void GiveTerminalBack() {
  if (codePageBefore != 0) static_cast<void>(SetConsoleOutputCP(codePageBefore));
  if (modeChanged) static_cast<void>(SetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), modeBefore));
}

BOOL WINAPI EndedByUser(DWORD) {
  GiveTerminalBack();
  return FALSE;  // the next handler terminates the process
}

// The events are never closed, because the handler uses them on a thread that Windows creates.
HANDLE StopEvent() {
  static const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  return event;
}
HANDLE EndEvent() {
  static const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  return event;
}

// When a console closes, Windows terminates the process once this returns, or after a few seconds:
// https://learn.microsoft.com/windows/console/handlerroutine
BOOL WINAPI RequestStop(DWORD kind) {
  SetEvent(StopEvent());
  if (kind != CTRL_C_EVENT && kind != CTRL_BREAK_EVENT) WaitForSingleObject(EndEvent(), INFINITE);
  return TRUE;
}

bool TerminalWantsColours() {
  // Nonzero if the variable is set and not empty, even if its value does not fit.
  wchar_t refused[2] = {};
  const bool set = GetEnvironmentVariableW(L"NO_COLOR", refused, 2) != 0;
  return !set && _isatty(_fileno(stdout)) != 0;
}

const char* Colour(const std::wstring& level) {
  if (level == L"ERROR") return "\x1b[31m";
  if (level == L"WARNING") return "\x1b[33m";
  return "\x1b[2m";
}

// Returns an empty string if the code is not in the table.
std::string TextIn(std::span<const Meaning> table, std::uint32_t code) {
  const auto known = std::ranges::find(table, code, &Meaning::code);
  return known == table.end() ? "" : known->text;
}

std::string WithMeaning(std::uint32_t code, const std::string& meaning) {
  return CodeText(code) + (meaning.empty() ? "" : " (" + meaning + ")");
}

std::wstring JsonLine(const LogLine& line, const std::wstring& moment) {
  JsonRow row{};
  if (!moment.empty()) row.Add({L"time", moment});
  row.Add({L"level", line.level});
  row.Add({L"provider", line.provider});
  row.Add({L"caller", line.caller});
  if (line.process != 0) row.Add({L"process", line.process});
  row.Add({L"message", line.message});
  return row.Text();
}

}  // namespace

TerminalScope::TerminalScope() {
  codePageBefore = GetConsoleOutputCP();
  static_cast<void>(SetConsoleOutputCP(CP_UTF8));  // on failure the console shows what it can
  const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
  modeChanged = GetConsoleMode(output, &modeBefore) != 0 &&
                SetConsoleMode(output, modeBefore | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
  static_cast<void>(SetConsoleCtrlHandler(&EndedByUser, TRUE));
}

TerminalScope::~TerminalScope() {
  static_cast<void>(SetConsoleCtrlHandler(&EndedByUser, FALSE));
  GiveTerminalBack();
}

StopRequest::StopRequest() {
  ResetEvent(StopEvent());
  ResetEvent(EndEvent());
  static_cast<void>(SetConsoleCtrlHandler(&RequestStop, TRUE));
}

// Does not remove the handler: Windows may hold a lock while a handler that it called waits.
StopRequest::~StopRequest() {
  SetEvent(EndEvent());
}

bool StopRequest::Wait(std::uint32_t milliseconds) {
  return WaitForSingleObject(StopEvent(), milliseconds) == WAIT_OBJECT_0;
}

std::string MeaningOf(std::uint32_t code) {
  return TextIn(kCodes, code);
}

std::string Describe(std::uint32_t code) {
  return WithMeaning(code, MeaningOf(code));
}

std::string DescribeResult(std::int32_t result) {
  const auto code = static_cast<std::uint32_t>(result);
  return WithMeaning(code, TextIn(kResults, code));
}

std::wstring ErrorJson(const std::string& message, int exitCode, std::int32_t result) {
  const auto code = static_cast<std::uint32_t>(result);
  const std::string name = TextIn(kResults, code);
  JsonRow error{{L"message", message}, {L"exitCode", exitCode}};
  if (code != 0) error.Add({L"result", CodeText(code)});
  if (!name.empty()) error.Add({L"name", name});
  return JsonRow{{L"error", error}}.Text();
}

Console::Console(const ConsoleOptions& given)
    : options(given), coloured(given.colours ? *given.colours : TerminalWantsColours()) {}

void Console::Write(const std::string& text, std::FILE* file) {
  const std::lock_guard guard(lock);
  std::fprintf(file, "%s\n", text.c_str());
  std::fflush(file);
  // fprintf and fflush do not report a failed write to an unbuffered stream.
  if (file == stdout && std::ferror(file) != 0) lostOutput = true;
}

void Console::Accompany(const std::string& text) {
  if (!options.quiet) Write(text, WritesJson() ? stderr : stdout);
}

void Console::Show(const JsonRow& row, const std::vector<std::string>& lines) {
  if (WritesJson()) return JsonResult(row);
  for (const std::string& line : lines) Line(line);
}

void Console::Result(const CommandResult& answer, const std::string& verdict) {
  Line("<- " + (answer.text ? Utf8(*answer.text) : std::string("(no response)")));
  Line("   result " + WithMeaning(answer.code, verdict.empty() ? MeaningOf(answer.code) : verdict));
}

std::string Console::TextOf(const LogLine& line, const std::wstring& moment) const {
  if (WritesJson()) return PrintableJson(JsonLine(line, moment));
  const std::string caller = line.caller.empty() ? "" : " [" + Utf8(line.caller) + "]";
  const std::string text = Printable("   " + (moment.empty() ? "" : Utf8(moment) + " ") + "log " +
                                         Utf8(line.level) + caller + ": " + Utf8(line.message),
                                     LineBreaks::Replace);
  return coloured ? Colour(line.level) + text + "\x1b[0m" : text;
}

void Console::Failure(const std::string& text) {
  Write(Printable("!! " + text, LineBreaks::Replace), WritesJson() ? stderr : stdout);
}

}  // namespace Vx::Hosting::Tool
