#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include "json/json_text.h"
#include "records/record.h"
#include "service/json_request.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Result codes of commands. Command 7 may also return the HRESULT of a Windows Runtime error.
inline constexpr std::uint32_t kSuccess = 0;
inline constexpr std::uint32_t kUnsupportedFunction = 0x20000001;
inline constexpr std::uint32_t kFailed = 0x20000002;  // null argument, failed handler or allocation
inline constexpr std::uint32_t kInvalidRequest = 0x20000003;
inline constexpr std::uint32_t kStandardException = 0x20000008;
inline constexpr std::uint32_t kRuntimeError = 0x20000009;
inline constexpr std::uint32_t kNoSessionApiSet = 0x2000000A;

// The command being executed, as passed to its handler.
struct Call {
  OrvaneService& service;
  const wchar_t* text = nullptr;      // the request as the client sent it
  const Json::WideDocument& request;  // the same, parsed
  Json::WideDocument& response;
  RequestCaller caller;  // its `problem` is not null
  Records::Record& record;
};

// Records `done` or `undone` as the outcome, unless a problem with the request was noted.
inline void Decide(const Call& call, bool succeeded, Records::Decision done,
                   Records::Decision undone) {
  if (call.caller.problem->key != nullptr) return;
  call.record.outcome =
      succeeded ? Records::Outcome{done} : Records::Outcome{undone, Records::Reason::EarlierLines};
}

// Adds a result with one value to the response. Returns kSuccess.
template <typename Value>
std::uint32_t AddAnswer(const Call& call, std::wstring_view key, Value value) {
  Json::WideValue answer(rapidjson::kObjectType);
  AddMember(answer, key, Json::WideValue(value), call.response.GetAllocator());
  AddResult(call.response, std::move(answer));
  return kSuccess;
}

// The commands that query or set one value. Each adds its result to the response, unless there is
// none, and returns 0. On failure it returns 0x20000002 and adds nothing. If it throws a standard
// exception, Dispatch logs that and returns the same code.

// Id 0, "sMode": the lockdown mode of Windows.
std::uint32_t GetLockdownMode(const Call& call);

// Id 2, "registrationState": the owner's registration state, or 0 if policy forbids sharing it.
std::uint32_t GetRegistrationState(const Call& call);

// Id 3, "setOperationOkay": marks the reason "keyName" for an automatic launch as used.
std::uint32_t SkipAutoLaunchCriteria(const Call& call);

// Id 4, "hasBeenInSMode": whether the machine has left S mode since its first start.
std::uint32_t HasBeenInSMode(const Call& call);

// Id 5, "skip": whether the reason "keyName" is marked as used.
std::uint32_t ShouldAutoLaunchBeSkipped(const Call& call);

// Id 6, "installed": whether the console user has a package of the requested family.
std::uint32_t IsUwpInstalled(const Call& call);

// Ids 12 and 13, "launched": get and set the flag that the switch software has been started. Id 13
// has no result.
std::uint32_t GetExecutedMcAfeeStub(const Call& call);
std::uint32_t SetExecutedMcAfeeStub(const Call& call);

// Id 22, "getVersion".
std::uint32_t GetVersion(const Call& call);

// The commands that act for the console user. Each adds its result to the response and returns 0. A
// standard exception is logged and becomes 0x20000002 without a result. The commands block while a
// package is deployed or a program is started.

// Id 8, "copied": copies the machine's registration data into the user's profile.
std::uint32_t CopyRegistration(const Call& call);

// Id 10, "startingPoint": starts the companion app if there is a reason to, and returns the reason.
std::uint32_t LaunchAfterResume(const Call& call);

// Id 11, "launched": registers the companion app if needed and starts it.
std::uint32_t LaunchCompanionApp(const Call& call);

// Id 17, "launched": like id 11, with a parameter. Starts nothing if the parameter is unreadable.
std::uint32_t LaunchWithParameter(const Call& call);

// The commands that change or use the stored subscriptions. They add nothing to the response and
// never throw std::exception.

// Id 7: stores a package subscription and makes it live. On a Windows Runtime error, removes the
// request and returns the HRESULT. Returns 0x20000009 for a request that is already stored.
std::uint32_t SubscribeToPackageEvent(const Call& call);

// Ids 9 and 14. Both log failures and return 0.
std::uint32_t SubscribeToPowerEvent(const Call& call);
std::uint32_t SubscribeToZephraEvent(const Call& call);

// Ids 19 and 15. Both log failures and return 0.
std::uint32_t UnsubscribeFromPowerEvent(const Call& call);
std::uint32_t UnsubscribeFromZephraEvent(const Call& call);

// Id 16: raises the platform event for a policy change. Returns 0.
std::uint32_t ReportPolicyChange(const Call& call);

}  // namespace Vx::Tessel::Server::Services::Orvane
