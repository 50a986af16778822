#pragma once

#include <mutex>
#include <string>

#include "vxhost/loaded_module.h"
#include "vxhost/log_listener.h"

namespace Vx::Host {

// How log lines are shown: for people, or one JSON object a line.
enum class LogForm { Text, Json };

// Writes what happens to standard output, UTF-8, one whole line at a time. Any thread.
class Console {
 public:
  explicit Console(LogForm logForm = LogForm::Text);

  void Heading(const std::string& text);
  void Line(const std::string& text);
  void Request(std::uint32_t id, const std::wstring& request);
  void Result(const Answer& answer);
  // `moment` is shown in front of the line, if it is not empty.
  void Log(const LogLine& line, const std::wstring& moment = {});
  void Failure(const std::string& text);

 private:
  LogForm form;
  bool coloured;
  std::mutex lock;
};

// "0x20000003", and what it means where that is known.
std::string Describe(std::uint32_t code);

}  // namespace Vx::Host
