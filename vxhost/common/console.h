#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "hosting/loaded_module.h"
#include "hosting/module_log.h"
#include "hosting/text.h"
#include "vxhost/common/json_row.h"

namespace Vx::Host {

// The exit codes of the process.
enum ExitCode : int { kDone = 0, kNotMet = 1, kUnusable = 2 };

// For people, or as one JSON object per line.
enum class LogForm { Text, Json };
enum class Colours { Auto, Always, Never };

struct ConsoleOptions {
  LogForm form = LogForm::Text;
  bool quiet = false;  // results only
  Colours colours = Colours::Auto;
};

// Lets the terminal show UTF-8 and colours, and gives it back its code page and mode at the end,
// also when Ctrl+C ends the process. One object per process.
class TerminalScope {
 public:
  TerminalScope();
  TerminalScope(const TerminalScope&) = delete;
  TerminalScope& operator=(const TerminalScope&) = delete;
  ~TerminalScope();
};

// Writes in UTF-8, one whole line at a time. Any thread may call it. Control characters in a text
// are replaced (see Printable), and those in JSON escaped.
//
// Results go to standard output. Headings, requests, notes and log lines accompany a result: in
// text form they stand before it, in JSON form they go to standard error, where no parser reads
// them, and a quiet console omits them.
class Console {
 public:
  explicit Console(ConsoleOptions options = {});

  bool WritesJson() const { return form == LogForm::Json; }

  // A result in JSON form. Commands that offer --json write nothing else to standard output.
  void JsonResult(std::wstring_view json) { Write(PrintableJson(json)); }
  void JsonResult(const JsonRow& result) { JsonResult(result.Text()); }

  void Heading(const std::string& text);
  // One line that accompanies the result.
  void Note(const std::string& text) { WriteNote(text, LineBreaks::Replace); }
  // One line, whatever `text` holds.
  void Line(const std::string& text) { Write(Printable(text, LineBreaks::Replace)); }
  // The lines of `text`, as they are.
  void Lines(const std::string& text) { Write(Printable(text, LineBreaks::Keep)); }
  void Request(std::uint32_t id, const std::wstring& request);
  void Result(const CommandResult& answer);
  // `moment`, if not empty, precedes the line.
  void Log(const LogLine& line, const std::wstring& moment = {});
  // The same, as the result of a command that shows log lines.
  void LogResult(const LogLine& line, const std::wstring& moment = {});
  void Failure(const std::string& text);

 private:
  void Write(const std::string& text, std::FILE* file = stdout);
  void WriteNote(const std::string& text, LineBreaks breaks);
  std::string TextOf(const LogLine& line, const std::wstring& moment) const;

  LogForm form;
  bool quiet;
  bool coloured;
  std::mutex lock;
};

// "0x20000003", with its meaning where that is known.
std::string Describe(std::uint32_t code);

// "done" for 0; empty when the code has no known meaning.
std::string MeaningOf(std::uint32_t code);

// "0x80070005 (E_ACCESSDENIED)", or only the number when the name is not known.
std::string DescribeResult(std::int32_t result);

// The error in the form that every command with --json writes: {"error": {"message", "exitCode",
// "result", "name"}}, the last two only where Windows returned a result.
std::wstring ErrorJson(const std::string& message, int exitCode, std::int32_t result = 0);

}  // namespace Vx::Host
