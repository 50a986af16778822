#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/log_sink.h"
#include "host/vx_service.h"
#include "hosting/store_hold.h"

namespace Vx::Hosting {

// Call first in main. Afterwards, Windows loads libraries named without a folder only from the
// system directory, and an uncaught exception terminates the process with an error report.
void PrepareProgram() noexcept;

struct CommandResult {
  std::uint32_t code = 0;
  std::optional<std::wstring> text;  // empty if the module returned no response
  // The decision and reason from the command's record. Empty if the command neither changed nor
  // refused anything, if the module writes no records, or if there is no ModuleLog.
  std::wstring decision = {};
  std::wstring reason = {};
};

// A module's service object, used only through its slots, as a service host uses it. The destructor
// calls slot 0.
class ServiceSession {
 public:
  // Takes ownership of `created`, a module's new service object.
  explicit ServiceSession(Tessel::Server::Services::VxService* created) : service(created) {}

  // Access to the service for one call, during which this thread holds the services' mutex.
  struct Call {
    ServicesMutexHold hold{StoreUse::Write};
    Tessel::Server::Services::VxService& slots;

    Tessel::Server::Services::VxService* operator->() const { return &slots; }
  };

  // Use the result for one call, as in Slots()->Start(). Throws whatever ServicesMutexHold throws.
  // Threads that the service starts do not hold the mutex.
  Call Slots() { return {.slots = *service}; }

  // Destroys the service. Assign another session before the next call.
  void End() { service.reset(); }

  // Runs one command as `caller` and blocks until it finishes. Throws std::runtime_error if
  // `caller` is longer than 64 characters, and whatever Slots throws.
  CommandResult Execute(std::uint32_t id, const std::wstring& request, const std::wstring& caller);

 private:
  struct Destroyer {
    void operator()(Tessel::Server::Services::VxService* object) const { object->Destroy(1); }
  };
  std::unique_ptr<Tessel::Server::Services::VxService, Destroyer> service;
};

// Owns a library that LoadLibraryEx loaded.
struct LibraryFreer {
  void operator()(void* library) const noexcept;  // FreeLibrary
};
using UniqueLibrary = std::unique_ptr<void, LibraryFreer>;

// Returns why the file cannot be loaded as a module, such as "imports X.dll, ...", or "" if it can.
// Runs none of its code, but loads the Windows libraries that it imports.
std::string WhyNoModule(const std::wstring& fullPath);

// A module loaded from a full path.
class LoadedModule {
 public:
  // Throws std::runtime_error, with advice for the user, if the file cannot be loaded.
  explicit LoadedModule(const std::wstring& fullPath);

  // Creates a service object. Throws std::runtime_error if the factory returns null or if the
  // services' mutex is needed but cannot be used.
  ServiceSession NewService() const;

  // Returns the export called `name`, or null if there is none.
  void* Find(const char* name) const;

 private:
  UniqueLibrary module;
  Tessel::Server::Services::CreateServiceFunction factory = nullptr;
};

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

// Copies a record's decision and reason to the result of the command that the calling thread runs,
// if any. A ModuleLog calls this itself.
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
