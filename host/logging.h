#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>

#include "host/log_sink.h"

// The host's logging library. standins/ implements it unless a build links the maker's own.

namespace Vx::Tessel::Server::Logging {

enum class LogLevel : std::uint8_t { Info = 0, Warning = 1, Error = 2 };

// One log line. The views are valid only during the call to the sink.
struct LogRecord {
  LogLevel level = LogLevel::Info;
  std::wstring_view provider;
  std::wstring_view caller;  // identity of the client that the line is about, or empty
  std::wstring_view message;
  const VxLogRecord* record = nullptr;  // null unless written with WriteRecord
};

// The argument types that a printf-style function takes without conversion.
template <typename T>
concept LogArgument = std::is_arithmetic_v<std::decay_t<T>> || std::is_pointer_v<std::decay_t<T>>;

// Writes log lines for one provider. Formats are wide and printf-style, with the host's
// conversions: %s takes a wide string, %S narrow UTF-8. Thread-safe. Never throws. Drops a line
// that cannot be formatted or delivered. Costs little unless a sink, trace or debugger listens.
class TraceLogger {
 public:
  // Adds a caller identity to every record. Borrows the logger and the identity.
  class ForCaller {
   public:
    ForCaller(const TraceLogger& owner, const wchar_t* callerId) noexcept
        : logger(owner), caller(callerId) {}

    template <LogArgument... Args>
    void LogInfo(const wchar_t* format, Args... args) const noexcept {
      logger.Write(LogLevel::Info, caller, format, args...);
    }
    template <LogArgument... Args>
    void LogWarning(const wchar_t* format, Args... args) const noexcept {
      logger.Write(LogLevel::Warning, caller, format, args...);
    }
    template <LogArgument... Args>
    void LogError(const wchar_t* format, Args... args) const noexcept {
      logger.Write(LogLevel::Error, caller, format, args...);
    }

   private:
    const TraceLogger& logger;
    const wchar_t* caller;
  };

  TraceLogger(const TraceLogger&) = delete;
  TraceLogger& operator=(const TraceLogger&) = delete;

  template <LogArgument... Args>
  void LogInfo(const wchar_t* format, Args... args) const noexcept {
    Write(LogLevel::Info, nullptr, format, args...);
  }
  template <LogArgument... Args>
  void LogWarning(const wchar_t* format, Args... args) const noexcept {
    Write(LogLevel::Warning, nullptr, format, args...);
  }
  template <LogArgument... Args>
  void LogError(const wchar_t* format, Args... args) const noexcept {
    Write(LogLevel::Error, nullptr, format, args...);
  }

  // `callerId` may be null.
  ForCaller For(const wchar_t* callerId) const noexcept { return {*this, callerId}; }

 private:
  friend class LogManager;
  explicit TraceLogger(std::wstring_view providerName) : provider(providerName) {}

  void Write(LogLevel level, const wchar_t* caller, const wchar_t* format, ...) const noexcept;

  std::wstring provider;
};

// Provides loggers, which live as long as the process.
class LogManager {
 public:
  // Receives every record, one at a time, on the logging thread. Must not throw or log.
  using Sink = std::function<void(const LogRecord&)>;
  using SinkId = std::uint64_t;

  // The service's own logger.
  static TraceLogger* GetLogger();

  // Returns the logger of a provider, always the same one for the same name.
  static TraceLogger* SetProvider(const char* name);

  // A sink is not called after RemoveSink returns. A sink must not call either function.
  static SinkId AddSink(Sink sink);
  static void RemoveSink(SinkId id);
};

// Returns whether WriteRecord would reach a listener now. If not, its caller need not format the
// line. Thread-safe.
bool IsHeard(LogLevel level) noexcept;

// Logs `text` with the service's own logger on behalf of the client of `record`. Sinks also receive
// `record`. The maker's library writes only the line. Thread-safe. Never throws.
void WriteRecord(const VxLogRecord& record, LogLevel level, const wchar_t* text) noexcept;

inline constexpr char kComponentProvider[] = "Vx-Tessel-SystemInformation";

}  // namespace Vx::Tessel::Server::Logging
