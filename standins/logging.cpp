#include "host/logging.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cwchar>
#include <iterator>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <windows.h>

#include <evntprov.h>

#include "standins/debug_monitor.h"

namespace Vx::Tessel::Server::Logging {

namespace {

// The provider of the service object's own logger.
constexpr char kServiceProvider[] = "Vx-Tessel-Service";

// The event provider that every line goes to: {653180DD-2F61-43C5-B3F1-1B516C6D7870}.
constexpr GUID kEventProvider = {
    0x653180dd, 0x2f61, 0x43c5, {0xb3, 0xf1, 0x1b, 0x51, 0x6c, 0x6d, 0x78, 0x70}};

// Longest message, and longest line with the level, provider and caller before it, in characters.
// A longer text is cut, because a line is meant to be read and its buffer is on the stack of the
// thread that logs.
constexpr std::size_t kLongestMessage = 4096;
constexpr std::size_t kLongestLine = kLongestMessage + 512;

struct LevelNames {
  const wchar_t* text;
  UCHAR event;  // the level of Windows' event tracing
};
constexpr LevelNames kLevels[] = {{L"INFO", 4}, {L"WARNING", 3}, {L"ERROR", 2}};

const LevelNames& NamesOf(LogLevel level) {
  return kLevels[static_cast<std::size_t>(level)];
}

// A caller may log between a failed call and GetLastError().
class LastErrorKept {
 public:
  LastErrorKept() noexcept : error(GetLastError()) {}
  LastErrorKept(const LastErrorKept&) = delete;
  LastErrorKept& operator=(const LastErrorKept&) = delete;
  ~LastErrorKept() { SetLastError(error); }

 private:
  DWORD error;
};

// A lock without a constructor, a destructor or a kernel object, for state that lives as long as
// the module is loaded.
class StaticLock {
 public:
  void lock() noexcept { AcquireSRWLockExclusive(&state); }
  void unlock() noexcept { ReleaseSRWLockExclusive(&state); }

 private:
  SRWLOCK state = SRWLOCK_INIT;
};

// Event tracing. The provider is registered at first use and unregistered when the module is
// unloaded. Windows holds no pointer to code of this module.
class EventTrace {
 public:
  EventTrace() noexcept {
    REGHANDLE handle = 0;
    if (EventRegister(&kEventProvider, nullptr, nullptr, &handle) == ERROR_SUCCESS) {
      registration.store(handle);
    }
  }
  EventTrace(const EventTrace&) = delete;
  EventTrace& operator=(const EventTrace&) = delete;
  ~EventTrace() {
    if (const REGHANDLE handle = registration.exchange(0); handle != 0) EventUnregister(handle);
  }

  bool Listens(LogLevel level) const noexcept {
    const REGHANDLE handle = registration.load(std::memory_order_relaxed);
    return handle != 0 && EventProviderEnabled(handle, NamesOf(level).event, 0) != FALSE;
  }

  void Write(LogLevel level, const wchar_t* line) const noexcept {
    EventWriteString(registration.load(std::memory_order_relaxed), NamesOf(level).event, 0, line);
  }

 private:
  std::atomic<REGHANDLE> registration{0};
};

EventTrace& Trace() noexcept {
  static EventTrace trace;
  return trace;
}

struct SinkEntry {
  LogManager::SinkId id;
  LogManager::Sink sink;
};

// The registered sinks, guarded by the lock. A delivery holds it, so that sinks receive one record
// at a time and RemoveSink waits for the end of a call. `sinkCount` may be read without the lock.
StaticLock sinkLock;
std::vector<SinkEntry>* sinks = nullptr;  // null while empty
std::atomic<std::size_t> sinkCount{0};
// The thread that is calling a sink. A sink that logs, against its contract, must not block itself.
std::atomic<DWORD> deliveringThread{0};

void DeliverToSinks(const LogRecord& record) {
  if (sinkCount.load(std::memory_order_acquire) == 0) return;
  if (deliveringThread.load(std::memory_order_relaxed) == GetCurrentThreadId()) return;
  const std::lock_guard guard(sinkLock);
  if (sinks == nullptr) return;
  deliveringThread.store(GetCurrentThreadId(), std::memory_order_relaxed);
  for (const SinkEntry& entry : *sinks) {
    try {
      entry.sink(record);
    } catch (...) {  // NOLINT(bugprone-empty-catch): there is no other listener
    }
  }
  deliveringThread.store(0, std::memory_order_relaxed);
}

// Formats into `buffer` with the host's meaning of %s and %S, cutting what does not fit. The C
// runtime's function leaves a cut text unterminated, and a text that it gives up in the middle too;
// hence the zeroes first.
template <std::size_t Size>
std::wstring_view Format(wchar_t (&buffer)[Size], const wchar_t* format, va_list arguments) {
  std::fill(std::begin(buffer), std::end(buffer), L'\0');
  _vsnwprintf(buffer, Size - 1, format, arguments);
  return buffer;
}

// A debug line: `LEVEL provider [caller] message` and a line feed, without the brackets if no
// caller is known.
void DeliverToDebugger(const LogRecord& record, const wchar_t* line) {
  wchar_t text[kLongestLine + 16];
  _snwprintf(text, std::size(text) - 2, L"%s %s", NamesOf(record.level).text, line);
  text[std::size(text) - 2] = L'\0';
  std::wcscat(text, L"\n");
  SendDebugOutput(text);
}

// A line for people: `provider [caller] message`.
void DeliverToSystem(const LogRecord& record, bool traced, bool debugged) {
  wchar_t line[kLongestLine];
  const auto length = [](std::wstring_view text) { return static_cast<int>(text.size()); };
  const bool named = !record.caller.empty();
  _snwprintf(line, std::size(line) - 1, L"%.*s%s%.*s%s %.*s", length(record.provider),
             record.provider.data(), named ? L" [" : L"", length(record.caller),
             record.caller.data(), named ? L"]" : L"", length(record.message),
             record.message.data());
  line[std::size(line) - 1] = L'\0';
  if (traced) Trace().Write(record.level, line);
  if (debugged) DeliverToDebugger(record, line);
}

}  // namespace

void TraceLogger::Write(LogLevel level, const wchar_t* caller, const wchar_t* format,
                        ...) const noexcept {
  const bool traced = Trace().Listens(level);
  const bool debugged = DebugOutputIsShown();
  if (!traced && !debugged && sinkCount.load(std::memory_order_relaxed) == 0) return;

  const LastErrorKept kept;
  wchar_t buffer[kLongestMessage + 1];
  LogRecord record;
  record.level = level;
  record.provider = provider;
  if (caller != nullptr) record.caller = caller;
  va_list arguments;  // NOLINT(cppcoreguidelines-init-variables): va_start does
  va_start(arguments, format);
  record.message = Format(buffer, format, arguments);
  va_end(arguments);

  DeliverToSinks(record);
  if (traced || debugged) DeliverToSystem(record, traced, debugged);
}

TraceLogger* LogManager::GetLogger() {
  return SetProvider(kServiceProvider);
}

TraceLogger* LogManager::SetProvider(const char* name) {
  // Entries are added at the front and never go, so the list is read without the lock.
  struct Entry {
    std::string name;
    std::unique_ptr<TraceLogger> logger;
    const Entry* next = nullptr;
  };
  static std::atomic<const Entry*> newest{nullptr};
  static StaticLock adding;

  const std::string_view wanted = name != nullptr ? name : "";
  const auto find = [wanted]() -> TraceLogger* {
    for (auto* entry = newest.load(std::memory_order_acquire); entry != nullptr;
         entry = entry->next) {
      if (entry->name == wanted) return entry->logger.get();
    }
    return nullptr;
  };
  if (TraceLogger* known = find(); known != nullptr) return known;

  const std::lock_guard guard(adding);
  if (TraceLogger* known = find(); known != nullptr) return known;
  const std::wstring wide(wanted.begin(), wanted.end());  // provider names are ASCII
  auto entry = std::make_unique<Entry>();
  entry->name = wanted;
  entry->logger.reset(new TraceLogger(wide));
  entry->next = newest.load(std::memory_order_relaxed);
  TraceLogger* logger = entry->logger.get();
  newest.store(entry.release(), std::memory_order_release);
  return logger;
}

LogManager::SinkId LogManager::AddSink(Sink sink) {
  static SinkId lastId = 0;
  const std::lock_guard guard(sinkLock);
  if (sinks == nullptr) sinks = new std::vector<SinkEntry>;
  sinks->push_back({++lastId, std::move(sink)});
  sinkCount.store(sinks->size(), std::memory_order_release);
  return lastId;
}

void LogManager::RemoveSink(SinkId id) {
  // Destroyed after the lock is released, because a sink may own anything.
  std::vector<SinkEntry> removed;
  const std::lock_guard guard(sinkLock);
  if (sinks == nullptr) return;
  const auto found =
      std::find_if(sinks->begin(), sinks->end(), [id](const auto& e) { return e.id == id; });
  if (found == sinks->end()) return;
  removed.push_back(std::move(*found));
  sinks->erase(found);
  sinkCount.store(sinks->size(), std::memory_order_release);
  if (sinks->empty()) delete std::exchange(sinks, nullptr);
}

}  // namespace Vx::Tessel::Server::Logging
