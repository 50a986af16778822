#pragma once

#include <cstdint>

#include "json/json_text.h"
#include "service/json_request.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The commands that answer a question or set one value. Each puts its answer under "result" of
// `response` and answers 0; when it cannot, it logs why and answers 0x20000002 with `response` left
// as it was. A null document is such a failure. None throws std::exception.

// Id 0, "sMode": the lockdown mode of Windows.
std::uint32_t GetLockdownMode(Json::WideDocument* response, const RequestCaller& caller);

// Id 2, "registrationState": the owner's registration as far as the consent policy lets it be told.
std::uint32_t GetRegistrationState(Json::WideDocument* response, const RequestCaller& caller);

// Id 3, "setOperationOkay": marks the reason "keyName" for an automatic launch as used.
std::uint32_t SkipAutoLaunchCriteria(const Json::WideDocument* request,
                                     Json::WideDocument* response, const RequestCaller& caller);

// Id 4, "hasBeenInSMode": whether the machine has left S mode since its first start.
std::uint32_t HasBeenInSMode(Json::WideDocument* response, const RequestCaller& caller);

// Id 5, "skip": whether the reason "keyName" is marked as used.
std::uint32_t ShouldAutoLaunchBeSkipped(const Json::WideDocument* request,
                                        Json::WideDocument* response, const RequestCaller& caller);

// Id 6, "installed": whether the package family of the request is there for the console user.
std::uint32_t IsUwpInstalled(const Json::WideDocument* request, Json::WideDocument* response,
                             const RequestCaller& caller);

// Ids 12 and 13: the flag that says whether the switch software was started.
std::uint32_t GetExecutedMcAfeeStub(Json::WideDocument* response, const RequestCaller& caller);
std::uint32_t SetExecutedMcAfeeStub(const Json::WideDocument* request, const RequestCaller& caller);

// Id 20, "power_events" and "zephra_events": the stored requests as objects, in stored order. Lists
// that would make the response longer than it may be are a failure.
std::uint32_t GetSubscriptions(Json::WideDocument* response, const RequestCaller& caller);

// Id 21, "sleepState": what another service stored, 0 when it has not.
std::uint32_t GetSleepState(Json::WideDocument* response, const RequestCaller& caller);

// Id 22, "getVersion".
std::uint32_t GetVersion(Json::WideDocument* response, const RequestCaller& caller);

}  // namespace Vx::Tessel::Server::Services::Orvane
