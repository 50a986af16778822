#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "host/log_sink.h"
#include "hosting/loaded_module.h"

namespace Vx::Host {

// A copy of a VxLogRecord, whose members it describes.
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

// The texts of a record, in their order.
inline constexpr struct {
  const char* name;
  std::wstring DecisionRecord::*text;
  const wchar_t* VxLogRecord::*source;
} kRecordTexts[] = {
    {"kind", &DecisionRecord::kind, &VxLogRecord::kind},
    {"decision", &DecisionRecord::decision, &VxLogRecord::decision},
    {"reason", &DecisionRecord::reason, &VxLogRecord::reason},
    {"subscription", &DecisionRecord::subscription, &VxLogRecord::subscription},
    {"target", &DecisionRecord::target, &VxLogRecord::target},
    {"package", &DecisionRecord::package, &VxLogRecord::package},
    {"client", &DecisionRecord::client, &VxLogRecord::client},
};

// One log line of the module.
struct LogLine {
  std::wstring level;  // INFO, WARNING or ERROR
  std::wstring provider;
  std::wstring caller;  // empty when the line does not concern a client
  std::wstring message;
  std::uint32_t process = 0;  // that wrote it; 0: not known
  std::optional<DecisionRecord> record = {};
};

// The provider of the lines that a host itself writes.
inline constexpr wchar_t kHostProvider[] = L"Vx-Host-Service";

// The name of a level of VxLogLine. One that this version does not know is an ERROR.
const wchar_t* LevelName(std::uint32_t level);

// Copies. A member that lies beyond the size of an older module's struct is empty.
LogLine LineOf(const VxLogLine& line);
DecisionRecord RecordOf(const VxLogRecord& record);

// Receives the log lines of a loaded module for the life of this object, one object per module at
// a time. Destroy it while the module is loaded: threads of the module may log until they have
// ended, and no line comes once the destructor has returned.
class ModuleLog {
 public:
  // Runs on the thread that logs, which may hold locks of the module: it copies the line, returns
  // at once and neither calls the module nor waits for a thread that does. A line for which it
  // throws is lost.
  using Receiver = std::function<void(const VxLogLine&)>;

  // `function` receives one warning instead if the module logs through a library that has no sink.
  ModuleLog(const LoadedModule& module, Receiver function);
  ModuleLog(const ModuleLog&) = delete;
  ModuleLog& operator=(const ModuleLog&) = delete;
  ~ModuleLog();

 private:
  static void Take(const VxLogLine* line, void* context) noexcept;

  Receiver receiver;
  VxSetLogSinkFunction setSink;  // null if the module has none
};

}  // namespace Vx::Host
