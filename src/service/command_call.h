#pragma once

#include <cstdint>
#include <exception>
#include <new>
#include <string_view>
#include <utility>

#include "json/json_text.h"
#include "json/utf8.h"
#include "records/record.h"
#include "service/boundary.h"
#include "service/json_request.h"
#include "service/result_codes.h"

namespace Vx::Tessel::Server::Services::Orvane {

class OrvaneService;

// One command being executed, as its handler sees it.
struct Call {
  OrvaneService& service;
  const wchar_t* text = nullptr;                // the request as the client sent it
  const Json::WideDocument* request = nullptr;  // the same, parsed
  Json::WideDocument* response = nullptr;
  RequestCaller caller;  // its `problem` is not null
  Records::Record& record;
};

// Whether a document that the handler works on is null. Each null one is reported.
inline bool LacksResponse(const Call& call) {
  return NullChecker({{call.response, "response"}}, call.caller);
}
inline bool LacksDocuments(const Call& call) {
  return NullChecker({{call.request, "request"}, {call.response, "response"}}, call.caller);
}

// The boundary of a handler: runs `body`, which returns a result code. A standard exception becomes
// a log line and 0x20000002.
template <typename Body>
std::uint32_t ResultFromException(const char* operation, const Call& call, Body&& body) {
  try {
    return std::forward<Body>(body)();
  } catch (const std::exception& error) {
    Log(call.caller).LogError(kThrew, call.caller.className, operation, error.what());
    try {
      *call.caller.problem = {L"request", L"failed: ", Json::ToWide(error.what()),
                              Records::Reason::Exception};
    } catch (const std::bad_alloc&) {
      *call.caller.problem = {L"request", L"failed", {}, Records::Reason::Exception};
    }
    return kFailed;
  }
}

// Records whether a command did what it is for, unless its request was wrong.
inline void Decide(const Call& call, bool succeeded, Records::Decision done,
                   Records::Decision undone) {
  if (call.caller.problem->key != nullptr) return;
  call.record.outcome =
      succeeded ? Records::Outcome{done} : Records::Outcome{undone, Records::Reason::EarlierLines};
}

// Adds a result of one value to the response.
inline void AddAnswer(Json::WideDocument& response, std::wstring_view key,
                      Json::WideValue&& value) {
  Json::WideValue answer(rapidjson::kObjectType);
  AddMember(answer, key, std::move(value), response.GetAllocator());
  AddResult(response, std::move(answer));
}

}  // namespace Vx::Tessel::Server::Services::Orvane
