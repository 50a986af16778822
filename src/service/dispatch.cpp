#include "service/dispatch.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <memory>
#include <new>
#include <string_view>

#include "bod/born_on_date_manager.h"
#include "host/logging.h"
#include "json/json_text.h"
#include "json/utf8.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/runtime/type_name.h"
#include "platform/system_services.h"
#include "platform/windows_runtime_error.h"
#include "service/boundary.h"
#include "service/command_handlers.h"
#include "service/orvane_service.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kUnsupported[] = L"%S.%S - Unsupported Function call %d";
constexpr wchar_t kNoMemory[] = L"OrvaneService::ExecuteCommand: malloc() returned NULL";
constexpr wchar_t kProblem[] = L"%S.%S - function id %u: %s %s%s (result 0x%08x)";
constexpr wchar_t kResponseTooLong[] = L"a response has more than 65,536 characters";

constexpr const char* kClass = Platform::TypeName<OrvaneService>();
constexpr char kExecuteCommand[] = "ExecuteCommand";

// Bytes on the stack for the documents of one call: enough for a request of a few hundred
// characters and for every response except a list of subscriptions.
constexpr std::size_t kRequestPool = 4096;
constexpr std::size_t kResponsePool = 2048;

using Handler = std::uint32_t (*)(const Call& call);

// A command without traits only reads, does not need the session API and rejects bad JSON.
constexpr unsigned kNeedsSessionApi = 1;
constexpr unsigned kIgnoresBadJson = 2;
constexpr unsigned kChanges = 4;

// One row is one command. A command without a handler is unsupported.
struct Command {
  std::uint32_t id = 0;
  const wchar_t* name = nullptr;    // for people; also the heading of its page
  const char* operation = nullptr;  // for an exception's log line; null if the handler logs its own
  Handler run = nullptr;
  unsigned traits = 0;
};

std::uint32_t RecordBornOnDate(const Call& call) {
  const bool stored = SetBornOnDate(*Logging::LogManager::GetLogger());
  Decide(call, stored, Records::Decision::Done, Records::Decision::Failed);
  return kSuccess;
}

// To add a command, write its handler and name it in its row.
constexpr Command kCommands[] = {
    {0, L"lockdown mode", "QueryLockoutMode", &GetLockdownMode, kIgnoresBadJson},
    {1},
    {2, L"registration state", "GetRegistrationState", &GetRegistrationState},
    {3, L"skip an automatic launch", "SkipAutoLaunchCriteria", &SkipAutoLaunchCriteria,
     kNeedsSessionApi | kChanges},
    {4, L"left S mode", "HasBeenInSMode", &HasBeenInSMode},
    {5, L"is an automatic launch skipped", "ShouldAutoLaunchBeSkipped", &ShouldAutoLaunchBeSkipped},
    {6, L"is a packaged app installed", "IsUwpInstalled", &IsUwpInstalled},
    {7, L"subscribe to a package event", nullptr, &SubscribeToPackageEvent, kChanges},
    {8, L"copy the registration data", "CopyRegistration", &CopyRegistration,
     kNeedsSessionApi | kIgnoresBadJson | kChanges},
    {9, L"subscribe to a power event", nullptr, &SubscribeToPowerEvent, kChanges},
    {10, L"launch after resume if needed", "LaunchUwpWhenComingBackFromSleepIfNeeded",
     &LaunchAfterResume, kNeedsSessionApi | kIgnoresBadJson},
    {11, L"launch the companion app", "RegisterApp", &LaunchCompanionApp,
     kNeedsSessionApi | kIgnoresBadJson | kChanges},
    {12, L"read the switch-software flag", "GetExecutedMcAfeeStub", &GetExecutedMcAfeeStub,
     kIgnoresBadJson},
    {13, L"write the switch-software flag", "SetExecutedMcAfeeStub", &SetExecutedMcAfeeStub,
     kNeedsSessionApi | kChanges},
    {14, L"subscribe to a platform event", nullptr, &SubscribeToZephraEvent, kChanges},
    {15, L"unsubscribe from a platform event", nullptr, &UnsubscribeFromZephraEvent, kChanges},
    {16, L"the policy changed", nullptr, &ReportPolicyChange, kChanges},
    {17, L"launch with a parameter", "LaunchUwpWithParameter", &LaunchWithParameter,
     kNeedsSessionApi | kChanges},
    {18, L"born-on date", nullptr, &RecordBornOnDate, kChanges},
    {19, L"unsubscribe from a power event", nullptr, &UnsubscribeFromPowerEvent, kChanges},
    {20, L"list the subscriptions", "GetSubscriptions", &OrvaneService::GetSubscriptions},
    {21, L"sleep state", "GetSleepState", &OrvaneService::GetSleepState},
    {22, L"version", "GetVersion", &GetVersion},
};

consteval std::uint32_t IdsThatHave(unsigned trait) {
  std::uint32_t mask = 0;
  for (const Command& command : kCommands) {
    if ((command.traits & trait) != 0) mask |= 1U << command.id;
  }
  return mask;
}

consteval bool RowsMatchIds() {
  std::uint32_t row = 0;
  return std::all_of(std::begin(kCommands), std::end(kCommands),
                     [&](const Command& command) { return command.id == row++; });
}

static_assert(RowsMatchIds(), "row n holds the command with id n");
static_assert(IdsThatHave(kNeedsSessionApi) == 0x22D08);
static_assert(IdsThatHave(kIgnoresBadJson) == 0x1D01);

// Returns the row of an id, or one without a handler for an unknown id.
const Command& CommandOf(std::uint32_t id) {
  static constexpr Command kNoCommand = {};
  return id < std::size(kCommands) ? kCommands[id] : kNoCommand;
}

// Runs a handler. If its row names an operation, logs a standard exception and returns 0x20000002.
std::uint32_t ResultFromException(const Command& command, const Call& call) {
  try {
    return command.run(call);
  } catch (const std::exception& error) {
    if (command.operation == nullptr) throw;
    Log(call.caller).LogError(kThrew, call.caller.className, command.operation, error.what());
    try {
      *call.caller.problem = {L"request", L"failed: ", Json::ToWide(error.what()),
                              Records::Reason::Exception};
    } catch (const std::bad_alloc&) {
      *call.caller.problem = {L"request", L"failed", {}, Records::Reason::Exception};
    }
    return kFailed;
  }
}

// Runs a handler. Most handlers catch their own exceptions. The rest are caught here.
std::uint32_t RunHandler(const Command& command, const Call& call, std::uint32_t id) {
  if (command.run == nullptr) {
    Log(call.caller).LogError(kUnsupported, kClass, kExecuteCommand, id);
    call.caller.problem->reason = Records::Reason::UnknownCommand;
    return kUnsupportedFunction;
  }
  std::uint32_t result = kStandardException;
  try {
    return ResultFromException(command, call);
  } catch (const Platform::WindowsRuntimeError&) {
    result = kRuntimeError;
    LogCurrentException(kExecuteCommand, call.caller.clientId);
  } catch (...) {
    LogCurrentException(kExecuteCommand, call.caller.clientId);
  }
  call.caller.problem->reason = Records::Reason::Exception;
  return result;
}

// Copies the response into a buffer from malloc. If out of memory, throws std::bad_alloc and
// delivers null.
void Deliver(const Json::WideDocument& answer, wchar_t** response) {
  Json::TextBuffer buffer;
  Json::WriteJson(answer, buffer);
  const std::wstring_view text = buffer.View();
  if (text.size() > kMaxResponseLength) FailContract(kResponseTooLong);
  auto* copy = static_cast<wchar_t*>(std::malloc((text.size() + 1) * sizeof(wchar_t)));
  *response = copy;
  if (copy == nullptr) throw std::bad_alloc();
  *std::copy(text.begin(), text.end(), copy) = L'\0';
}

// Parses the request, runs the handler and delivers the response. Throws std::bad_alloc.
std::uint32_t Execute(OrvaneService& service, std::uint32_t id, const wchar_t* request,
                      wchar_t** response, const RequestCaller& caller, Records::Record& record) {
  *response = nullptr;
  Json::InlineDocument<kRequestPool> document;
  Json::InlineDocument<kResponsePool> answer;
  const Command& command = CommandOf(id);
  const std::wstring_view text(request);
  const bool valid = text.size() <= kMaxRequestLength && Json::ParseJson(*document, text);
  if (!valid && (command.traits & kIgnoresBadJson) == 0) {
    *caller.problem = {L"message", L"is not valid JSON", {}, Records::Reason::NotJson};
    return kInvalidRequest;
  }
  answer->SetObject();
  const std::uint32_t result =
      RunHandler(command, {service, request, *document, *answer, caller, record}, id);
  Deliver(*answer, response);
  return result;
}

// Logs why a request was refused, or what was wrong with a request that was carried out.
void LogProblem(std::uint32_t id, std::uint32_t result, const RequestCaller& caller) {
  RequestProblem& problem = *caller.problem;
  if (problem.key == nullptr) {
    if (result == kSuccess) return;
    problem.key = L"request";
    problem.what = L"could not be carried out";
  }
  const auto log = Log(caller);
  const wchar_t* const detail = problem.detail.c_str();
  if (result == kSuccess) {
    log.LogWarning(kProblem, kClass, kExecuteCommand, id, problem.key, problem.what, detail,
                   result);
  } else {
    log.LogError(kProblem, kClass, kExecuteCommand, id, problem.key, problem.what, detail, result);
  }
}

// Makes the checks that do not need the parsed request. Returns kSuccess if they pass.
std::uint32_t CheckCall(const ClientContext* context, std::uint32_t id, const wchar_t* request,
                        wchar_t** response, const RequestCaller& caller) {
  if ((CommandOf(id).traits & kNeedsSessionApi) != 0 &&
      !Platform::CurrentMachine().apiSets->IsPresent(Platform::kSessionApiSet)) {
    *caller.problem = {
        Platform::kSessionApiSet, L"is missing on this Windows", {}, Records::Reason::NoSessionApi};
    return kNoSessionApiSet;
  }
  if (context == nullptr) {
    *caller.problem = {L"context", L"is null", {}, Records::Reason::NullArgument};
    return kFailed;
  }
  if (NullChecker({{request, "message"}, {response, "outString"}}, caller)) {
    *caller.problem = {request == nullptr ? L"message" : L"outString",
                       L"is null",
                       {},
                       Records::Reason::NullArgument};
    return kFailed;
  }
  return kSuccess;
}

}  // namespace

const wchar_t* CommandName(std::uint32_t id) noexcept {
  return CommandOf(id).name;
}

std::uint32_t Dispatch(OrvaneService& service, const ClientContext* context, std::uint32_t id,
                       const wchar_t* request, wchar_t** response,
                       CompletionCallback* callback) noexcept {
  // Destroyed last, on every path.
  const std::unique_ptr<CompletionCallback, decltype(&DestroyCallback)> owner(callback,
                                                                              &DestroyCallback);
  const auto now = [] { return Platform::CurrentMachine().clock->TickCount(); };
  const std::uint64_t start = now();
  RequestProblem problem{.reason = Records::Reason::EarlierLines};
  const RequestCaller caller{context == nullptr ? nullptr : context->clientId, &problem};
  Records::Record record{.client = caller.clientId, .number = id};
  std::uint32_t result = kFailed;
  try {
    const std::uint32_t refusal = CheckCall(context, id, request, response, caller);
    result =
        refusal != kSuccess ? refusal : Execute(service, id, request, response, caller, record);
  } catch (const std::bad_alloc&) {
    Log(caller).LogError(kNoMemory);
    problem.reason = Records::Reason::Exception;
  } catch (...) {
    LogCurrentException(kExecuteCommand, caller.clientId);
    problem.reason = Records::Reason::Exception;
  }
  // An unknown id has already been logged.
  if (result != kUnsupportedFunction) LogProblem(id, result, caller);
  const auto decide = [&](const Records::Outcome& outcome) {
    if (record.outcome.decision == Records::Decision::None) record.outcome = outcome;
  };
  if (result != kSuccess || problem.key != nullptr) {
    const bool failed = problem.reason == Records::Reason::Exception;
    decide({failed ? Records::Decision::Failed : Records::Decision::Refused, problem.reason});
  } else if ((CommandOf(id).traits & kChanges) != 0) {
    decide({Records::Decision::Done});
  }
  record.outcome.number = result;
  record.milliseconds = now() - start;
  if (record.outcome.decision != Records::Decision::None) Records::Write(record);
  return result;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
