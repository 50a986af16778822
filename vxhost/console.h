#pragma once

#include <mutex>
#include <string>

#include "vxhost/loaded_module.h"
#include "vxhost/log_listener.h"

namespace Vx::Host {

// How log lines are shown: for people, or as one JSON object per line.
enum class LogForm { Text, Json };

// Writes to standard output in UTF-8, one whole line at a time. Any thread may call it. Control
// characters in a text are replaced (see Printable).
class Console {
 public:
  explicit Console(LogForm logForm = LogForm::Text);

  void Heading(const std::string& text);
  // One line, whatever `text` holds.
  void Line(const std::string& text);
  // The lines of `text`, as they are.
  void Lines(const std::string& text);
  void Request(std::uint32_t id, const std::wstring& request);
  void Result(const Answer& answer);
  // `moment`, if not empty, precedes the line.
  void Log(const LogLine& line, const std::wstring& moment = {});
  void Failure(const std::string& text);

 private:
  void Write(const std::string& text);

  LogForm form;
  bool coloured;
  std::mutex lock;
};

// "0x20000003", with its meaning where that is known.
std::string Describe(std::uint32_t code);

}  // namespace Vx::Host
