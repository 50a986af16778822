#pragma once

#include <functional>
#include <string>

#include "platform/unique_handle.h"

namespace Vx::Host {

// One log line of the module.
struct LogLine {
  std::wstring level;  // INFO, WARNING or ERROR
  std::wstring provider;
  std::wstring caller;  // empty when the line is about no client
  std::wstring message;
};

// Hears the log lines of a module in this process, in order, on the thread that logs. The module
// writes them as debug output while somebody listens; this class is that somebody, and takes the
// text from the exception that carries it, which a monitor in another process then still gets. One
// at a time in a process.
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

// Takes a debug line `LEVEL provider [caller] message` apart; a line of another form has only a
// message.
LogLine ParseLogLine(const std::wstring& text);

}  // namespace Vx::Host
