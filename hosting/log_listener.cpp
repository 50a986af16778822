#include "hosting/log_listener.h"

#include <exception>
#include <mutex>
#include <set>
#include <utility>

#include <windows.h>

namespace Vx::Host {

namespace {

// Debug output is an exception that a program may leave unhandled: wide text on Windows 10 and
// later, narrow text on earlier versions and when the wide exception goes unhandled.
constexpr DWORD kWideDebugOutput = 0x4001000A;
constexpr DWORD kNarrowDebugOutput = 0x40010006;

std::mutex listenerLock;
LogListener::Receiver* receiver = nullptr;

// Threads whose wide text was received and is now on its way to a monitor, as narrow text.
std::set<DWORD> passedOn;

// Whether a monitor of debug output, such as "vxhost watch", waits in another process.
bool MonitorWaits() {
  const Platform::UniqueHandle buffer(OpenFileMappingW(FILE_MAP_WRITE, FALSE, L"DBWIN_BUFFER"));
  return buffer != nullptr;
}

LONG TakeText(const EXCEPTION_RECORD& record) {
  const bool wide = record.ExceptionCode == kWideDebugOutput;
  std::wstring text;
  if (wide && record.NumberParameters >= 2) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an exception carries pointers as numbers
    text = reinterpret_cast<const wchar_t*>(record.ExceptionInformation[1]);
  } else if (record.ExceptionCode == kNarrowDebugOutput && record.NumberParameters >= 2) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): likewise
    const auto* narrow = reinterpret_cast<const char*>(record.ExceptionInformation[1]);
    text.resize(static_cast<std::size_t>(MultiByteToWideChar(CP_ACP, 0, narrow, -1, nullptr, 0)));
    MultiByteToWideChar(CP_ACP, 0, narrow, -1, text.data(), static_cast<int>(text.size()));
    if (!text.empty()) text.pop_back();
  } else {
    return EXCEPTION_CONTINUE_SEARCH;
  }
  const std::lock_guard guard(listenerLock);
  if (receiver == nullptr) return EXCEPTION_CONTINUE_SEARCH;
  if (passedOn.erase(GetCurrentThreadId()) != 0 && !wide) return EXCEPTION_CONTINUE_SEARCH;
  while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r')) text.pop_back();
  (*receiver)(ParseLogLine(text));
  if (!MonitorWaits()) return EXCEPTION_CONTINUE_EXECUTION;
  if (wide) passedOn.insert(GetCurrentThreadId());
  return EXCEPTION_CONTINUE_SEARCH;
}

// No exception may pass through Windows' search for a handler to the code that logs.
LONG CALLBACK TakeDebugOutput(EXCEPTION_POINTERS* exception) noexcept {
  try {
    return TakeText(*exception->ExceptionRecord);
  } catch (const std::exception&) {  // no memory for the line
    return EXCEPTION_CONTINUE_SEARCH;
  }
}

// Cuts the first word off `rest`.
std::wstring TakeWord(std::wstring& rest) {
  const std::size_t blank = rest.find(L' ');
  std::wstring word = rest.substr(0, blank);
  rest.erase(0, blank == std::wstring::npos ? blank : blank + 1);
  return word;
}

}  // namespace

LogLine ParseLogLine(const std::wstring& text) {
  LogLine line;
  std::wstring rest = text;
  line.level = TakeWord(rest);
  if (line.level != L"INFO" && line.level != L"WARNING" && line.level != L"ERROR") {
    return {.level = L"INFO", .provider = {}, .caller = {}, .message = text};
  }
  line.provider = TakeWord(rest);
  if (!rest.empty() && rest.front() == L'[') {
    if (const std::size_t end = rest.find(L"] "); end != std::wstring::npos) {
      line.caller = rest.substr(1, end - 1);
      rest.erase(0, end + 2);
    }
  }
  line.message = rest;
  return line;
}

LogListener::LogListener(Receiver function)
    // The event by which the module recognises a monitor of debug output.
    : monitorEvent(CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_DATA_READY")) {
  const std::lock_guard guard(listenerLock);
  receiver = new Receiver(std::move(function));
  handler = AddVectoredExceptionHandler(1, &TakeDebugOutput);
}

LogListener::~LogListener() {
  RemoveVectoredExceptionHandler(handler);
  const std::lock_guard guard(listenerLock);
  delete std::exchange(receiver, nullptr);
}

}  // namespace Vx::Host
