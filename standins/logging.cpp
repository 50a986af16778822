#include "host/logging.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cwchar>
#include <iterator>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

#include <windows.h>

#include <evntprov.h>

#include "platform/shown_text.h"
#include "standins/debug_monitor.h"
#include "standins/narrow_texts.h"

namespace Vx::Tessel::Server::Logging {

namespace {

constexpr wchar_t kServiceProvider[] = L"Vx-Tessel-Service";

// Every line goes to this event provider: {653180DD-2F61-43C5-B3F1-1B516C6D7870}.
constexpr GUID kEventProvider = {
    0x653180dd, 0x2f61, 0x43c5, {0xb3, 0xf1, 0x1b, 0x51, 0x6c, 0x6d, 0x78, 0x70}};

// The longest message, and the longest line with level, provider and caller, in characters. Longer
// ones are truncated, because people read the line and its buffer is on the logging thread's stack.
constexpr std::size_t kLongestMessage = 4096;
constexpr std::size_t kLongestCaller = 256;
constexpr std::size_t kLongestFormat = 1024;
constexpr std::size_t kLongestLine = kLongestMessage + kLongestCaller + 256;

struct LevelNames {
  const wchar_t* text;
  UCHAR event;  // the event tracing level
};
constexpr LevelNames kLevels[] = {{L"INFO", 4}, {L"WARNING", 3}, {L"ERROR", 2}};

const LevelNames& NamesOf(LogLevel level) {
  return kLevels[static_cast<std::size_t>(level)];
}

// Callers may log between a failed call and GetLastError().
class LastErrorKept {
 public:
  LastErrorKept() noexcept : error(GetLastError()) {}
  LastErrorKept(const LastErrorKept&) = delete;
  LastErrorKept& operator=(const LastErrorKept&) = delete;
  ~LastErrorKept() { SetLastError(error); }

 private:
  DWORD error;
};

// A lock without constructor, destructor or kernel object, for state as long-lived as the module.
class StaticLock {
 public:
  void lock() noexcept { AcquireSRWLockExclusive(&state); }
  void unlock() noexcept { ReleaseSRWLockExclusive(&state); }

 private:
  SRWLOCK state = SRWLOCK_INIT;
};

// Event tracing. The provider is registered at first use and unregistered when the module is
// unloaded. Windows holds no pointer into this module's code.
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

struct HostSink {
  VxLogSink function = nullptr;
  void* context = nullptr;
};

// The registered sinks, guarded by the lock. A delivery holds it, so that sinks receive one record
// at a time and a removal waits for the call to end. `sinkCount` may be read without the lock.
StaticLock sinkLock;
std::vector<SinkEntry>* sinks = nullptr;  // null while empty
constinit HostSink hostSink;
std::atomic<std::size_t> sinkCount{0};
// The thread that is calling a sink. A sink that logs breaks its contract, but must not deadlock.
std::atomic<DWORD> deliveringThread{0};

// The caller holds the lock.
void CountSinks() noexcept {
  const std::size_t own = sinks != nullptr ? sinks->size() : 0;
  sinkCount.store(own + (hostSink.function != nullptr ? 1 : 0), std::memory_order_release);
}

// A record's strings are NUL-terminated here.
void DeliverToHost(const LogRecord& record) noexcept {
  const VxLogLine line{.size = sizeof line,
                       .level = static_cast<std::uint32_t>(record.level),
                       .thread = GetCurrentThreadId(),
                       .provider = record.provider.data(),
                       .caller = record.caller.data(),
                       .text = record.message.data(),
                       .record = record.record};
  hostSink.function(&line, hostSink.context);
}

void DeliverToSinks(const LogRecord& record) {
  if (sinkCount.load(std::memory_order_acquire) == 0) return;
  if (deliveringThread.load(std::memory_order_relaxed) == GetCurrentThreadId()) return;
  const std::lock_guard guard(sinkLock);
  deliveringThread.store(GetCurrentThreadId(), std::memory_order_relaxed);
  for (std::size_t i = 0; sinks != nullptr && i < sinks->size(); ++i) {
    try {
      (*sinks)[i].sink(record);
    } catch (...) {  // NOLINT(bugprone-empty-catch): there is no other listener
    }
  }
  if (hostSink.function != nullptr) DeliverToHost(record);
  deliveringThread.store(0, std::memory_order_relaxed);
}

// Formats into `buffer` with the host's conversions. Returns false if the text does not fit or
// cannot be formatted. The C runtime then leaves it unterminated, so the buffer is zeroed first.
template <std::size_t Size>
bool FormatWhole(wchar_t (&buffer)[Size], const wchar_t* format, va_list arguments) {
  std::fill(std::begin(buffer), std::end(buffer), L'\0');
  va_list copy;  // NOLINT(cppcoreguidelines-init-variables): va_copy does
  va_copy(copy, arguments);
  const int length = _vsnwprintf(buffer, Size - 1, format, copy);
  va_end(copy);
  return length >= 0;
}

// Copies `format` to `bounded` and adds the precision `limit` to every string conversion that has
// none. Returns false if there is no room.
template <std::size_t Size>
bool BoundTexts(const wchar_t* format, int limit, wchar_t (&bounded)[Size]) {
  wchar_t* out = bounded;
  wchar_t* const end = bounded + Size - 1;
  const auto copyTo = [&](const wchar_t* stop) {
    while (format != stop && out != end) *out++ = *format++;
  };
  while (*format != L'\0' && out != end) {
    const bool conversion = *format == L'%';
    copyTo(format + 1);
    if (!conversion) continue;
    copyTo(format + std::wcsspn(format, L"-+ #0123456789*"));
    const wchar_t* const letter = format + std::wcsspn(format, L".0123456789*hlwLIjzt");
    if (*format != L'.' && (*letter == L's' || *letter == L'S')) {
      const int written = _snwprintf(out, static_cast<std::size_t>(end - out), L".%d", limit);
      if (written < 0) return false;
      out += written;
    }
    copyTo(*letter == L'\0' ? letter : letter + 1);
  }
  *out = L'\0';
  return *format == L'\0';
}

// Formats into `buffer`. If the message is too long, truncates its string arguments but keeps the
// rest of the format, because the end of a line says what happened.
template <std::size_t Size>
std::wstring_view Format(wchar_t (&buffer)[Size], const wchar_t* format, va_list arguments) {
  if (!FormatWhole(buffer, format, arguments)) {
    wchar_t bounded[kLongestFormat];
    int fits = -1;
    for (int low = 0, high = static_cast<int>(Size) - 1; low <= high;) {
      const int limit = low + (high - low) / 2;
      if (BoundTexts(format, limit, bounded) && FormatWhole(buffer, bounded, arguments)) {
        fits = limit;
        low = limit + 1;
      } else {
        high = limit - 1;
      }
    }
    const bool bounds = fits >= 0 && BoundTexts(format, fits, bounded);
    FormatWhole(buffer, bounds ? bounded : format, arguments);
  }
  std::wstring_view message(buffer);
  std::transform(message.begin(), message.end(), std::begin(buffer), &Platform::ShownAs);
  return message;
}

// Copies as much of a caller's identity as fits.
template <std::size_t Size>
std::wstring_view CopyCaller(wchar_t (&buffer)[Size], const wchar_t* caller) noexcept {
  const std::size_t length = caller != nullptr ? wcsnlen(caller, Size - 1) : 0;
  std::transform(caller, caller + length, std::begin(buffer), &Platform::ShownAs);
  buffer[length] = L'\0';
  return {buffer, length};
}

// Sends `LEVEL provider [caller] message` and a line feed. Without a caller, omits the brackets.
void DeliverToDebugger(const LogRecord& record, const wchar_t* line) {
  wchar_t text[kLongestLine + 16];
  _snwprintf(text, std::size(text) - 2, L"%s %s", NamesOf(record.level).text, line);
  text[std::size(text) - 2] = L'\0';
  std::wcscat(text, L"\n");
  SendDebugOutput(text);
}

// Formats `provider [caller] message`.
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

// The listeners that would receive a line now.
class Listeners {
 public:
  explicit Listeners(LogLevel level)
      : traced(Trace().Listens(level)), debugged(DebugOutputIsShown()) {}

  bool Any() const noexcept {
    return traced || debugged || sinkCount.load(std::memory_order_relaxed) != 0;
  }

  void Deliver(const LogRecord& record) const {
    DeliverToSinks(record);
    if (traced || debugged) DeliverToSystem(record, traced, debugged);
  }

 private:
  bool traced;
  bool debugged;
};

}  // namespace

void TraceLogger::Write(LogLevel level, const wchar_t* caller, const wchar_t* format,
                        ...) const noexcept {
  const LastErrorKept kept;
  const Listeners listeners(level);
  if (!listeners.Any()) return;

  wchar_t buffer[kLongestMessage + 1];
  LogRecord record;
  record.level = level;
  record.provider = provider;
  wchar_t callerBuffer[kLongestCaller + 1];
  record.caller = CopyCaller(callerBuffer, caller);
  va_list arguments;  // NOLINT(cppcoreguidelines-init-variables): va_start does
  va_start(arguments, format);
  const NarrowTexts texts(format, arguments);
  record.message = Format(buffer, texts.Format(), texts.Arguments());
  va_end(arguments);

  listeners.Deliver(record);
}

bool IsHeard(LogLevel level) noexcept {
  const LastErrorKept kept;
  return Listeners(level).Any();
}

void WriteRecord(const VxLogRecord& fields, LogLevel level, const wchar_t* text) noexcept {
  const LastErrorKept kept;
  const Listeners listeners(level);
  if (!listeners.Any()) return;
  wchar_t callerBuffer[kLongestCaller + 1];
  LogRecord record;
  record.level = level;
  record.provider = kServiceProvider;
  record.caller = CopyCaller(callerBuffer, fields.client);
  record.message = text;
  record.record = &fields;
  listeners.Deliver(record);
}

TraceLogger* LogManager::GetLogger() {
  return SetProvider("Vx-Tessel-Service");
}

TraceLogger* LogManager::SetProvider(const char* name) {
  // Loggers are never removed, so a lookup needs no lock.
  struct Known {
    std::string name;
    std::unique_ptr<TraceLogger> logger;
    const Known* next;
  };
  static StaticLock lock;  // held while adding one
  static std::atomic<const Known*> newest{nullptr};

  const std::string_view wanted = name != nullptr ? name : "";
  const auto find = [wanted]() -> TraceLogger* {
    const Known* known = newest.load(std::memory_order_acquire);
    while (known != nullptr && known->name != wanted) known = known->next;
    return known != nullptr ? known->logger.get() : nullptr;
  };
  if (TraceLogger* const logger = find()) return logger;
  const std::lock_guard guard(lock);
  if (TraceLogger* const logger = find()) return logger;
  const std::wstring wide(wanted.begin(), wanted.end());  // provider names are ASCII
  std::unique_ptr<TraceLogger> logger(new TraceLogger(wide));
  auto added = std::make_unique<Known>(Known{std::string(wanted), std::move(logger), newest});
  newest.store(added.get(), std::memory_order_release);
  return added.release()->logger.get();
}

LogManager::SinkId LogManager::AddSink(Sink sink) {
  static SinkId lastId = 0;
  const std::lock_guard guard(sinkLock);
  if (sinks == nullptr) sinks = new std::vector<SinkEntry>;
  sinks->push_back({++lastId, std::move(sink)});
  CountSinks();
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
  if (sinks->empty()) delete std::exchange(sinks, nullptr);
  CountSinks();
}

}  // namespace Vx::Tessel::Server::Logging

extern "C" void VxSetLogSink(VxLogSink sink, void* context) {
  using namespace Vx::Tessel::Server::Logging;
  const std::lock_guard guard(sinkLock);
  hostSink = {sink, context};
  CountSinks();
}
