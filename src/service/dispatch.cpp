#include "service/dispatch.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <new>
#include <string>
#include <string_view>

#include "bod/set_born_on_date.h"
#include "host/logging.h"
#include "json/json_text.h"
#include "platform/machine.h"
#include "platform/runtime/type_name.h"
#include "platform/system_services.h"
#include "platform/windows_runtime_error.h"
#include "service/boundary.h"
#include "service/client_context.h"
#include "service/command_call.h"
#include "service/launch_handlers.h"
#include "service/orvane_service.h"
#include "service/query_handlers.h"
#include "service/subscription_handlers.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kUnsupported[] = L"%S.%S - Unsupported Function call %d";
constexpr wchar_t kNoMemory[] = L"OrvaneService::ExecuteCommand: malloc() returned NULL";
constexpr wchar_t kProblem[] = L"%S.%S - function id %u: %s %s%s (result 0x%08x)";
constexpr wchar_t kResponseTooLong[] = L"a response has more than 65,536 characters";

constexpr const char* kClass = Platform::TypeName<OrvaneService>();
constexpr char kExecuteCommand[] = "ExecuteCommand";

// Bytes on the stack for the documents of one call: enough for a request of some hundred characters
// and for every response but a list of subscriptions.
constexpr std::size_t kRequestPool = 4096;
constexpr std::size_t kResponsePool = 2048;

using Handler = std::uint32_t (*)(const Call& call);

enum class SessionApi : std::uint8_t { NotNeeded, Needed };
enum class BadJson : std::uint8_t { Refused, Ignored };

// One row is one command. A command without a handler is unsupported.
struct Command {
  std::uint32_t id;
  const wchar_t* name;  // for people, as the heading of its page
  SessionApi sessionApi;
  BadJson badJson;
  Handler run;
};

std::uint32_t RecordBornOnDate(const Call& /*call*/) {
  SetBornOnDate(*Logging::LogManager::GetLogger());
  return kSuccess;
}

// To add a command, write its handler and name it in its row.
constexpr Command kCommands[] = {
    {0, L"lockdown mode", SessionApi::NotNeeded, BadJson::Ignored, &GetLockdownMode},
    {1, nullptr, SessionApi::NotNeeded, BadJson::Refused, nullptr},
    {2, L"registration state", SessionApi::NotNeeded, BadJson::Refused, &GetRegistrationState},
    {3, L"skip an automatic launch", SessionApi::Needed, BadJson::Refused, &SkipAutoLaunchCriteria},
    {4, L"left S mode", SessionApi::NotNeeded, BadJson::Refused, &HasBeenInSMode},
    {5, L"is an automatic launch skipped", SessionApi::NotNeeded, BadJson::Refused,
     &ShouldAutoLaunchBeSkipped},
    {6, L"is a packaged app installed", SessionApi::NotNeeded, BadJson::Refused, &IsUwpInstalled},
    {7, L"subscribe to a package event", SessionApi::NotNeeded, BadJson::Refused,
     &SubscribeToPackageEvent},
    {8, L"copy the registration data", SessionApi::Needed, BadJson::Ignored, &CopyRegistration},
    {9, L"subscribe to a power event", SessionApi::NotNeeded, BadJson::Refused,
     &SubscribeToPowerEvent},
    {10, L"launch after resume if needed", SessionApi::Needed, BadJson::Ignored,
     &LaunchAfterResume},
    {11, L"launch the companion app", SessionApi::Needed, BadJson::Ignored, &LaunchCompanionApp},
    {12, L"read the switch-software flag", SessionApi::NotNeeded, BadJson::Ignored,
     &GetExecutedMcAfeeStub},
    {13, L"write the switch-software flag", SessionApi::Needed, BadJson::Refused,
     &SetExecutedMcAfeeStub},
    {14, L"subscribe to a platform event", SessionApi::NotNeeded, BadJson::Refused,
     &SubscribeToZephraEvent},
    {15, L"unsubscribe from a platform event", SessionApi::NotNeeded, BadJson::Refused,
     &UnsubscribeFromZephraEvent},
    {16, L"the policy changed", SessionApi::NotNeeded, BadJson::Refused, &ReportPolicyChange},
    {17, L"launch with a parameter", SessionApi::Needed, BadJson::Refused, &LaunchWithParameter},
    {18, L"born-on date", SessionApi::NotNeeded, BadJson::Refused, &RecordBornOnDate},
    {19, L"unsubscribe from a power event", SessionApi::NotNeeded, BadJson::Refused,
     &UnsubscribeFromPowerEvent},
    {20, L"list the subscriptions", SessionApi::NotNeeded, BadJson::Refused,
     &OrvaneService::GetSubscriptions},
    {21, L"sleep state", SessionApi::NotNeeded, BadJson::Refused, &OrvaneService::GetSleepState},
    {22, L"version", SessionApi::NotNeeded, BadJson::Refused, &GetVersion},
};

template <typename Has>
consteval std::uint32_t IdsThat(Has has) {
  std::uint32_t mask = 0;
  for (const Command& command : kCommands) {
    if (has(command)) mask |= 1U << command.id;
  }
  return mask;
}

consteval bool RowsMatchIds() {
  std::uint32_t row = 0;
  return std::all_of(std::begin(kCommands), std::end(kCommands),
                     [&](const Command& command) { return command.id == row++; });
}

static_assert(RowsMatchIds(), "row n holds the command with id n");
static_assert(IdsThat([](const Command& c) { return c.sessionApi == SessionApi::Needed; }) ==
              0x22D08);
static_assert(IdsThat([](const Command& c) { return c.badJson == BadJson::Ignored; }) == 0x1D01);

// Returns the row of an id, or one without a handler for an unknown id.
const Command& CommandOf(std::uint32_t id) {
  static constexpr Command kNoCommand = {0, nullptr, SessionApi::NotNeeded, BadJson::Refused,
                                         nullptr};
  return id < std::size(kCommands) ? kCommands[id] : kNoCommand;
}

// Destroys the host's callback at the end of the call, on every path.
class CallbackOwner {
 public:
  explicit CallbackOwner(CompletionCallback* owned) : callback(owned) {}
  CallbackOwner(const CallbackOwner&) = delete;
  CallbackOwner& operator=(const CallbackOwner&) = delete;
  ~CallbackOwner() { DestroyCallback(callback); }

 private:
  CompletionCallback* callback;
};

// The boundary of the handlers. Most contain their own failures, and the rest end here.
std::uint32_t RunHandler(Handler handler, const Call& call, std::uint32_t id) {
  if (handler == nullptr) {
    Logging::LogManager::GetLogger()
        ->For(call.caller.clientId)
        .LogError(kUnsupported, kClass, kExecuteCommand, id);
    return kUnsupportedFunction;
  }
  try {
    return handler(call);
  } catch (const Platform::WindowsRuntimeError&) {
    LogCurrentException(kExecuteCommand, call.caller.clientId);
    return kRuntimeError;
  } catch (...) {
    LogCurrentException(kExecuteCommand, call.caller.clientId);
    return kStandardException;
  }
}

// Copies the response into a buffer of the C allocator. Returns false when there is no memory.
bool Deliver(const Json::WideDocument& answer, wchar_t** response) {
  Json::TextBuffer buffer;
  Json::WriteJson(answer, buffer);
  const std::wstring_view text = buffer.View();
  if (text.size() > kMaxResponseLength) FailContract(kResponseTooLong);
  auto* copy = static_cast<wchar_t*>(std::malloc((text.size() + 1) * sizeof(wchar_t)));
  *response = copy;
  if (copy == nullptr) return false;
  *std::copy(text.begin(), text.end(), copy) = L'\0';
  return true;
}

// Parses the request, runs the handler and delivers the response. Throws std::bad_alloc.
std::uint32_t Execute(OrvaneService& service, std::uint32_t id, const wchar_t* request,
                      wchar_t** response, const RequestCaller& caller) {
  *response = nullptr;
  Json::InlineDocument<kRequestPool> document;
  Json::InlineDocument<kResponsePool> answer;
  const Command& command = CommandOf(id);
  const std::wstring_view text(request);
  const bool valid = text.size() <= kMaxRequestLength && Json::ParseJson(*document, text);
  if (!valid && command.badJson == BadJson::Refused) {
    *caller.problem = {L"message", L"is not valid JSON"};
    return kInvalidRequest;
  }
  answer->SetObject();
  const std::uint32_t result =
      RunHandler(command.run, {service, request, &*document, &*answer, caller}, id);
  if (Deliver(*answer, response)) return result;
  throw std::bad_alloc();
}

// The checks before the documents are made. Returns kSuccess for a command that may run.
std::uint32_t CheckCall(const ClientContext* context, std::uint32_t id, const wchar_t* request,
                        wchar_t** response, const RequestCaller& caller) {
  if (CommandOf(id).sessionApi == SessionApi::Needed &&
      !Platform::CurrentMachine().apiSets->IsPresent(Platform::kSessionApiSet)) {
    *caller.problem = {Platform::kSessionApiSet, L"is missing on this Windows"};
    return kNoSessionApiSet;
  }
  if (context == nullptr) {
    *caller.problem = {L"context", L"is null"};
    return kFailed;
  }
  if (NullChecker({{request, "message"}, {response, "outString"}}, caller)) {
    *caller.problem = {request == nullptr ? L"message" : L"outString", L"is null"};
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
  const CallbackOwner owner(callback);
  RequestProblem problem;
  const RequestCaller caller{context == nullptr ? nullptr : context->clientId, &problem};
  const auto log = Logging::LogManager::GetLogger()->For(caller.clientId);
  std::uint32_t result = kFailed;
  try {
    result = CheckCall(context, id, request, response, caller);
    if (result == kSuccess) result = Execute(service, id, request, response, caller);
  } catch (const std::bad_alloc&) {
    log.LogError(kNoMemory);
    result = kFailed;
  } catch (...) {
    LogCurrentException(kExecuteCommand, caller.clientId);
    result = kFailed;
  }
  // An unknown id has left its own line.
  if (result == kUnsupportedFunction) return result;
  if (result != kSuccess && problem.key == nullptr) {
    problem = {L"request", L"could not be carried out"};
  }
  if (problem.key != nullptr) {
    const auto report = [&](auto write) {
      write(kProblem, kClass, kExecuteCommand, id, problem.key, problem.what,
            problem.detail.c_str(), result);
    };
    // A request that returned 0 was taken, though not as its sender meant it.
    if (result == kSuccess) {
      report([&](auto... texts) { log.LogWarning(texts...); });
    } else {
      report([&](auto... texts) { log.LogError(texts...); });
    }
  }
  return result;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
