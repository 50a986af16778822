#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hosting/json_row.h"
#include "hosting/loaded_module.h"
#include "hosting/text.h"

namespace Vx::Hosting::Tool {

// The process's exit codes.
enum ExitCode : int { kDone = 0, kNotMet = 1, kUnusable = 2 };

struct ConsoleOptions {
  bool json = false;                 // print one JSON object per line, not text
  bool quiet = false;                // print only results
  std::optional<bool> colours = {};  // by default, if standard output is a terminal
};

// Switches the terminal to UTF-8 and enables colors. Restores its code page and mode when
// destroyed, or when Ctrl+C terminates the process. Create only one per process.
class TerminalScope {
 public:
  TerminalScope();
  TerminalScope(const TerminalScope&) = delete;
  TerminalScope& operator=(const TerminalScope&) = delete;
  ~TerminalScope();
};

// Lets a command shut down cleanly on Ctrl+C or when the console closes. Otherwise, Windows would
// terminate the process. Create one at a time, before the objects that must be destroyed first: a
// closing console waits until this object is destroyed.
class StopRequest {
 public:
  StopRequest();
  StopRequest(const StopRequest&) = delete;
  StopRequest& operator=(const StopRequest&) = delete;
  ~StopRequest();

  // Waits for the request, for at most `milliseconds`, which may be INFINITE. Returns whether it
  // came.
  bool Wait(std::uint32_t milliseconds);
};

// Writes UTF-8, one whole line at a time. Thread-safe. Replaces control characters in text (see
// Printable) and escapes them in JSON.
//
// Results go to standard output. They are accompanied by headings, requests, notes and log lines.
// In text form, these go to standard output too. In JSON form, they go to standard error, so that
// parsers do not see them. A quiet console omits them.
class Console {
 public:
  explicit Console(const ConsoleOptions& given = {});

  bool WritesJson() const { return options.json; }

  // Writes a result as JSON. Commands with --json write nothing else to standard output.
  void JsonResult(std::wstring_view json) { Write(PrintableJson(json)); }
  void JsonResult(const JsonRow& result) { JsonResult(result.Text()); }

  // Writes a result: `row` in JSON form, otherwise `lines`.
  void Show(const JsonRow& row, const std::vector<std::string>& lines);

  void Heading(const std::string& text) { Accompany(Printable("\n== " + text, LineBreaks::Keep)); }
  // Writes a line that accompanies the result.
  void Note(const std::string& text) { Accompany(Printable(text, LineBreaks::Replace)); }
  // Writes `text` as one line, replacing any line breaks in it.
  void Line(const std::string& text) { Write(Printable(text, LineBreaks::Replace)); }
  // Writes `text` with its line breaks.
  void Lines(const std::string& text) { Write(Printable(text, LineBreaks::Keep)); }
  void Request(std::uint32_t id, const std::wstring& request) {
    Accompany(Printable("-> " + std::to_string(id) + " " + Utf8(request), LineBreaks::Keep));
  }
  // If not empty, `verdict` replaces the meaning of the result code.
  void Result(const CommandResult& answer, const std::string& verdict = {});
  // If `moment` is not empty, it precedes the line.
  void Log(const LogLine& line, const std::wstring& moment = {}) {
    Accompany(TextOf(line, moment));
  }
  // Like Log, but writes the line as a result.
  void LogResult(const LogLine& line, const std::wstring& moment) { Write(TextOf(line, moment)); }
  void Failure(const std::string& text);

  // Returns whether a write to standard output has failed, for example because the disk is full.
  bool LostOutput() const { return lostOutput; }

 private:
  void Write(const std::string& text, std::FILE* file = stdout);
  void Accompany(const std::string& text);
  std::string TextOf(const LogLine& line, const std::wstring& moment) const;

  const ConsoleOptions options;
  const bool coloured;
  std::atomic<bool> lostOutput{false};
  std::mutex lock;
};

// Returns "0x20000003", with its meaning if known.
std::string Describe(std::uint32_t code);

// Returns the meaning of a code, such as "done" for 0, or an empty string if unknown.
std::string MeaningOf(std::uint32_t code);

// Returns "0x80070005 (E_ACCESSDENIED)", or only the number if the name is unknown.
std::string DescribeResult(std::int32_t result);

// Returns the error in the form that every command with --json writes: {"error": {"message",
// "exitCode", "result", "name"}}. Omits "result" if it is 0, and "name" if it is unknown.
std::wstring ErrorJson(const std::string& message, int exitCode, std::int32_t result = 0);

}  // namespace Vx::Hosting::Tool
