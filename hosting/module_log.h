#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "host/log_sink.h"
#include "hosting/loaded_module.h"

namespace Vx::Hosting {

// A copy of a VxLogRecord, which documents the members.
struct DecisionRecord {
  std::wstring kind = {};
  std::wstring decision = {};
  std::wstring reason = {};
  std::wstring subscription = {};
  std::wstring target = {};
  std::wstring package = {};
  std::wstring client = {};
  std::uint32_t number = 0;
  std::uint32_t status = 0;
  std::uint32_t process = 0;
  std::uint64_t delivery = 0;
  std::uint64_t milliseconds = 0;
};

// The string members of a record, in the order in which logs list them.
inline constexpr struct {
  const wchar_t* name;
  std::wstring DecisionRecord::*text;
  const wchar_t* VxLogRecord::*source;
} kRecordTexts[] = {
    {L"kind", &DecisionRecord::kind, &VxLogRecord::kind},
    {L"decision", &DecisionRecord::decision, &VxLogRecord::decision},
    {L"reason", &DecisionRecord::reason, &VxLogRecord::reason},
    {L"subscription", &DecisionRecord::subscription, &VxLogRecord::subscription},
    {L"target", &DecisionRecord::target, &VxLogRecord::target},
    {L"package", &DecisionRecord::package, &VxLogRecord::package},
    {L"client", &DecisionRecord::client, &VxLogRecord::client},
};

struct LogLine {
  std::wstring level;  // INFO, WARNING or ERROR
  std::wstring provider;
  std::wstring caller;  // empty if the line does not concern a client
  std::wstring message;
  std::uint32_t process = 0;  // the process that wrote the line; 0 if unknown
  std::optional<DecisionRecord> record = {};
};

// The provider of the lines that a host itself writes.
inline constexpr wchar_t kHostProvider[] = L"Vx-Host-Service";

// Returns the name of a VxLogLine level, or "ERROR" if the level is unknown.
const wchar_t* LevelName(std::uint32_t level);

// Return a copy. Members that an older module's struct does not have are left empty.
LogLine LineOf(const VxLogLine& line);
DecisionRecord RecordOf(const VxLogRecord& record);

// While this object exists, copies to `result` the decision and reason of the command that the
// calling thread runs. The module logs a command's record on the thread that runs it.
class DecisionScope {
 public:
  explicit DecisionScope(CommandResult& result);
  DecisionScope(const DecisionScope&) = delete;
  DecisionScope& operator=(const DecisionScope&) = delete;
  ~DecisionScope();
};

// Passes a record to the calling thread's DecisionScope, if any. A ModuleLog calls this itself.
void NoteDecision(const VxLogRecord& record);

// Receives the log lines of a loaded module for the life of this object. A module can have only one
// ModuleLog at a time. Destroy it before unloading the module, whose threads may log until they
// exit. No line arrives after the destructor returns.
class ModuleLog {
 public:
  // Called on the logging thread, which may hold the module's locks. Must copy the line and return,
  // without calling the module or waiting for a thread that does. If it throws, the line is lost.
  using Receiver = std::function<void(const VxLogLine&)>;

  // If the module's logging library does not support sinks, `function` receives one warning.
  ModuleLog(const LoadedModule& module, Receiver function);
  ModuleLog(const ModuleLog&) = delete;
  ModuleLog& operator=(const ModuleLog&) = delete;
  ~ModuleLog();

 private:
  static void Take(const VxLogLine* line, void* context) noexcept;

  Receiver receiver;
  VxSetLogSinkFunction setSink;  // null if the module does not export it
};

}  // namespace Vx::Hosting
