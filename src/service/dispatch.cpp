#include "service/dispatch.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <new>
#include <string>
#include <string_view>

#include "bod/set_born_on_date.h"
#include "events/package_event_manager.h"
#include "events/power_events.h"
#include "events/zephra_events.h"
#include "host/logging.h"
#include "json/json_text.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "platform/type_name.h"
#include "platform/windows_runtime_error.h"
#include "service/boundary.h"
#include "service/client_context.h"
#include "service/json_request.h"
#include "service/launch_handlers.h"
#include "service/orvane_service.h"
#include "service/query_handlers.h"
#include "service/result_codes.h"
#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kUnsupported[] = L"%S.%S - Unsupported Function call %d";
constexpr wchar_t kNoMemory[] = L"OrvaneService::ExecuteCommand: malloc() returned NULL";
constexpr wchar_t kPackageRuntimeError[] =
    L"OrvaneService - RegisterAppPackageEvent threw hresult_error: Message: %s, Code: %i";
constexpr wchar_t kPackageFailed[] = L"OrvaneService - RegisterAppPacakgeEvent threw %S";
constexpr wchar_t kProblem[] = L"%S.%S - function id %u: %s %s%s (result 0x%08x)";
constexpr wchar_t kResponseTooLong[] = L"a response has more than 65,536 characters";

constexpr const char* kClass = Platform::TypeName<OrvaneService>();
constexpr char kExecuteCommand[] = "ExecuteCommand";

// Characters of a request; a longer one counts as invalid. It bounds what one call can make the
// service allocate, at many times the size of any real request.
constexpr std::size_t kMaxRequestLength = std::size_t{1024} * 1024;

// Memory for the documents of one call that needs no allocation, in bytes: enough for a request of
// some hundred characters and for every answer but a list of subscriptions.
constexpr std::size_t kRequestPool = 4096;
constexpr std::size_t kResponsePool = 2048;

// One command being executed, as its handler sees it.
struct Call {
  OrvaneService& service;
  const wchar_t* text;
  const Json::WideDocument& request;
  Json::WideDocument& response;
  const RequestCaller& caller;
};

using Handler = std::uint32_t (*)(const Call& call);

enum class SessionApi : std::uint8_t { NotNeeded, Needed };
enum class BadJson : std::uint8_t { Refused, Ignored };

// One row is one command; one without a handler is answered as unsupported.
struct Command {
  std::uint32_t id;
  SessionApi sessionApi;
  BadJson badJson;
  Handler run;
};

RequestProblem ProblemOf(const Platform::WindowsRuntimeError& error) {
  switch (error.code()) {
    case kAlreadySubscribed:
      return {L"request", L"is subscribed already"};
    case kPackageNotInstalled:
      return {L"packageFamilyName", L"names a package that is not installed"};
    case kConsoleUserUnavailable:
      return {L"request", L"needs a user at the console"};
    case kUnknownCatalogEvent:
      return {L"catalogEvent", L"is unknown"};
    case kUnknownAction:
      return {L"catalogAction", L"is unknown"};
    default:
      return {L"request", L"failed: ", error.message()};
  }
}

// Takes a request back whose registration failed, which must not hide what it failed of.
void TakeBack(const Call& call) {
  try {
    RemoveAppPackageEvent(call.text);
  } catch (const Platform::WindowsRuntimeError&) {  // NOLINT(bugprone-empty-catch)
    // The stored list cannot be read, so that it never took the request.
  }
}

std::uint32_t RegisterPackageEvent(const Call& call) {
  const auto log = Logging::LogManager::GetLogger()->For(call.caller.clientId);
  try {
    RegisterAppPackageEvent(call.text);
    return kSuccess;
  } catch (const Platform::WindowsRuntimeError& error) {
    log.LogError(kPackageRuntimeError, error.message().c_str(), error.code());
    *call.caller.problem = ProblemOf(error);
    if (error.code() == kAlreadySubscribed) return kRuntimeError;
    TakeBack(call);
    return static_cast<std::uint32_t>(error.code());
  } catch (const std::exception& error) {
    log.LogError(kPackageFailed, error.what());
    return kStandardException;
  }
}

// Wraps a member of the service that works on the request text.
template <int (OrvaneService::*Operation)(const wchar_t*, const wchar_t*)>
std::uint32_t OnText(const Call& call) {
  return static_cast<std::uint32_t>((call.service.*Operation)(call.text, call.caller.clientId));
}

// Wraps a registration. A subscription is stored as it came, so what keeps one from ever running
// changes nothing for the client; the log tells it now, not first when the event comes.
template <int (OrvaneService::*Operation)(const wchar_t*, const wchar_t*), typename Request>
std::uint32_t Subscribe(const Call& call) {
  const std::uint32_t result = OnText<Operation>(call);
  try {
    const Request readable(call.text);
  } catch (const Platform::WindowsRuntimeError& error) {
    *call.caller.problem = {L"request", L"will never run: ", error.message()};
  }
  return result;
}

// Wraps a member of the service that only answers.
template <std::uint32_t (OrvaneService::*Query)(Json::WideDocument*, const RequestCaller&)>
std::uint32_t ServiceAnswering(const Call& call) {
  return (call.service.*Query)(&call.response, call.caller);
}

// Wraps a query that only answers.
template <std::uint32_t (*Query)(Json::WideDocument*, const RequestCaller&)>
std::uint32_t Answering(const Call& call) {
  return Query(&call.response, call.caller);
}

// Wraps a query that also reads the request.
template <std::uint32_t (*Query)(const Json::WideDocument*, Json::WideDocument*,
                                 const RequestCaller&)>
std::uint32_t Asking(const Call& call) {
  return Query(&call.request, &call.response, call.caller);
}

std::uint32_t WriteStubFlag(const Call& call) {
  return SetExecutedMcAfeeStub(&call.request, call.caller);
}

std::uint32_t RecordBornOnDate(const Call& /*call*/) {
  SetBornOnDate(*Logging::LogManager::GetLogger());
  return kSuccess;
}

// To add a command, write its handler and put it into its row.
constexpr Command kCommands[] = {
    {0, SessionApi::NotNeeded, BadJson::Ignored, &Answering<GetLockdownMode>},
    {1, SessionApi::NotNeeded, BadJson::Refused, nullptr},
    {2, SessionApi::NotNeeded, BadJson::Refused, &Answering<GetRegistrationState>},
    {3, SessionApi::Needed, BadJson::Refused, &Asking<SkipAutoLaunchCriteria>},
    {4, SessionApi::NotNeeded, BadJson::Refused, &Answering<HasBeenInSMode>},
    {5, SessionApi::NotNeeded, BadJson::Refused, &Asking<ShouldAutoLaunchBeSkipped>},
    {6, SessionApi::NotNeeded, BadJson::Refused, &Asking<IsUwpInstalled>},
    {7, SessionApi::NotNeeded, BadJson::Refused, &RegisterPackageEvent},
    {8, SessionApi::Needed, BadJson::Ignored, &Answering<CopyRegistration>},
    {9, SessionApi::NotNeeded, BadJson::Refused,
     &Subscribe<&OrvaneService::RegisterPowerEvent, SubscribeForPowerEventRequest>},
    {10, SessionApi::Needed, BadJson::Ignored, &Answering<LaunchAfterResume>},
    {11, SessionApi::Needed, BadJson::Ignored, &Answering<LaunchCompanionApp>},
    {12, SessionApi::NotNeeded, BadJson::Ignored, &Answering<GetExecutedMcAfeeStub>},
    {13, SessionApi::Needed, BadJson::Refused, &WriteStubFlag},
    {14, SessionApi::NotNeeded, BadJson::Refused,
     &Subscribe<&OrvaneService::RegisterZephraEvent, SubscribeForZephraEventRequest>},
    {15, SessionApi::NotNeeded, BadJson::Refused, &OnText<&OrvaneService::UnregisterZephraEvent>},
    {16, SessionApi::NotNeeded, BadJson::Refused, &OnText<&OrvaneService::OnPolicyChangedEvent>},
    {17, SessionApi::Needed, BadJson::Refused, &Asking<LaunchWithParameter>},
    {18, SessionApi::NotNeeded, BadJson::Refused, &RecordBornOnDate},
    {19, SessionApi::NotNeeded, BadJson::Refused, &OnText<&OrvaneService::UnregisterPowerEvent>},
    {20, SessionApi::NotNeeded, BadJson::Refused,
     &ServiceAnswering<&OrvaneService::GetSubscriptions>},
    {21, SessionApi::NotNeeded, BadJson::Refused, &ServiceAnswering<&OrvaneService::GetSleepState>},
    {22, SessionApi::NotNeeded, BadJson::Refused, &Answering<GetVersion>},
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

// What is known of an id, "no such command" included.
const Command& CommandOf(std::uint32_t id) {
  static constexpr Command kNoCommand = {0, SessionApi::NotNeeded, BadJson::Refused, nullptr};
  return id < std::size(kCommands) ? kCommands[id] : kNoCommand;
}

// Destroys the host's callback at the end of the call, whichever way it ends.
class CallbackOwner {
 public:
  explicit CallbackOwner(CompletionCallback* owned) : callback(owned) {}
  CallbackOwner(const CallbackOwner&) = delete;
  CallbackOwner& operator=(const CallbackOwner&) = delete;
  ~CallbackOwner() { DestroyCallback(callback); }

 private:
  CompletionCallback* callback;
};

// The boundary of the handlers: most end their own failures, what they let out ends here.
std::uint32_t RunHandler(Handler handler, const Call& call, std::uint32_t id) {
  if (handler == nullptr) {
    Logging::LogManager::GetLogger()
        ->For(call.caller.clientId)
        .LogError(kUnsupported, kClass, kExecuteCommand, id);
    *call.caller.problem = {L"functionId", L"names no command"};
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

// Hands the answer over in a buffer of the C allocator.
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

// All of a command that has its documents: parse, handle, answer. Throws std::bad_alloc.
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
      RunHandler(command.run, {service, request, *document, *answer, caller}, id);
  if (Deliver(*answer, response)) return result;
  throw std::bad_alloc();
}

// The checks that come before the documents; kSuccess lets the command through.
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
  if (result != kSuccess && problem.key == nullptr) {
    problem = {L"request", L"could not be carried out"};
  }
  if (problem.key != nullptr) {
    log.LogError(kProblem, kClass, kExecuteCommand, id, problem.key, problem.what,
                 problem.detail.c_str(), result);
  }
  return result;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
