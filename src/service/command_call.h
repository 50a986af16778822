#pragma once

#include <string_view>
#include <utility>

#include "json/json_text.h"
#include "records/record.h"
#include "service/json_request.h"
#include "service/result_codes.h"

namespace Vx::Tessel::Server::Services::Orvane {

class OrvaneService;

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

// Adds a result with one value to the response.
template <typename Value>
void AddAnswer(const Call& call, std::wstring_view key, Value value) {
  Json::WideValue answer(rapidjson::kObjectType);
  AddMember(answer, key, Json::WideValue(value), call.response.GetAllocator());
  AddResult(call.response, std::move(answer));
}

}  // namespace Vx::Tessel::Server::Services::Orvane
