#include "service/s_mode.h"

#include <cstdint>
#include <exception>

#include "companion/windows_mode.h"
#include "platform/environment.h"
#include "platform/machine.h"
#include "platform/processes.h"
#include "platform/runtime/type_name.h"
#include "security/trusted_program.h"
#include "service/orvane_service.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Logging::LogManager;
using Storage::BsonElement;
using Storage::CapDataStore;

constexpr wchar_t kFirstMode[] = L"%S.%S First Lockdown Policy is %d";
constexpr wchar_t kCurrentMode[] = L"%S.%S Current Lockdown Policy is %d";
constexpr wchar_t kNullArgument[] = L"%S.%S - %S cannot be null";
constexpr wchar_t kNotTrusted[] = L"%S.%S unable to launch %s not trusted";
constexpr wchar_t kOutcome[] = L"%S(%s) : %s";
constexpr wchar_t kSucceeded[] = L"succeeded";
constexpr wchar_t kFailed[] = L"FAILED";

constexpr const char* kClass = Platform::TypeName<OrvaneService>();
constexpr char kStartupTask[] = "startup_task";
constexpr char kSetFirstLockDownMode[] = "SetFirstLockDownMode";
constexpr char kLaunchExe[] = "LaunchExeFor10SSwitch";
constexpr wchar_t kStartupCaller[] = L"OrvaneService-Startup";

constexpr std::int32_t kNoMode = -1;

std::int32_t StoredFirstMode(CapDataStore& store) {
  const auto document = store.readDocument(kServiceDocument);
  const auto stored = document.Find(kFirstEnforcementMode);
  return stored ? stored->AsInt32().value_or(kNoMode) : kNoMode;
}

bool StartSwitchSoftware(const Security::TrustedProgram& program, const wchar_t* arguments,
                         const Logging::TraceLogger& logger) {
  Platform::ProcessStart start;
  start.application = program.Path();
  start.commandLine = L"\"" + program.Path() + L"\" " + arguments;
  const bool started =
      start.commandLine.size() <= Platform::kMaxCommandLine &&
      static_cast<bool>(Platform::CurrentMachine().processes->Start(nullptr, start));
  logger.LogInfo(kOutcome, "CreateProcess", program.Path().c_str(), started ? kSucceeded : kFailed);
  return started;
}

}  // namespace

void SetFirstLockDownMode(const Logging::TraceLogger& logger) {
  try {
    CapDataStore store;
    const std::int32_t first = StoredFirstMode(store);
    logger.LogInfo(kFirstMode, kStartupTask, kSetFirstLockDownMode, first);
    if (first >= 0) return;
    const std::int32_t current = QueryLockoutMode(kStartupCaller);
    logger.LogInfo(kCurrentMode, kStartupTask, kSetFirstLockDownMode, current);
    // Keeps a recorded mode, even one that could not be read above.
    store.updateMember(kServiceDocument, kFirstEnforcementMode,
                       [current](const BsonElement* stored) -> std::optional<BsonElement> {
                         if (stored != nullptr && stored->View().AsInt32().value_or(kNoMode) >= 0) {
                           return std::nullopt;
                         }
                         return BsonElement::Int32(current);
                       });
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): documented as silent
  }
}

bool LaunchExeFor10SSwitch(const wchar_t* pathToExecute, const wchar_t* arguments) {
  const Logging::TraceLogger& logger = *LogManager::GetLogger();
  if (pathToExecute == nullptr || *pathToExecute == L'\0') {
    logger.LogError(kNullArgument, kClass, kLaunchExe, "pathToExecute");
    return false;
  }
  const auto path =
      Platform::CurrentMachine().environment->Expand(pathToExecute, Platform::kShortPath);
  if (!path) return false;
  const auto check = Security::TrustedProgram::Check(*path);
  if (check.program == nullptr) {
    logger.LogError(kNotTrusted, kClass, kLaunchExe, path->c_str());
    return false;
  }
  return StartSwitchSoftware(*check.program, arguments, logger);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
