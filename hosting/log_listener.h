#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/unique_handle.h"

namespace Vx::Host {

// One log line of the module.
struct LogLine {
  std::wstring level;  // INFO, WARNING or ERROR
  std::wstring provider;
  std::wstring caller;  // empty when the line does not concern a client
  std::wstring message;
  std::uint32_t process = 0;  // that wrote it; 0: not known
};

// Receives the log lines of a module in this process, in order, on the thread that logs. The module
// writes them as debug output while a monitor exists. This class acts as one and takes the text
// from the exception that carries it, and a monitor in another process still receives it. One
// object per process at a time.
class LogListener {
 public:
  using Receiver = std::function<void(const LogLine&)>;

  explicit LogListener(Receiver receiver);
  LogListener(const LogListener&) = delete;
  LogListener& operator=(const LogListener&) = delete;
  ~LogListener();

 private:
  Platform::UniqueHandle monitorEvent;
  void* handler;
};

// Parses a debug line `LEVEL provider [caller] message`. A line of another form yields only a
// message.
LogLine ParseLogLine(const std::wstring& text);

}  // namespace Vx::Host
