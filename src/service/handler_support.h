#pragma once

#include <cstdint>
#include <exception>
#include <string_view>
#include <utility>

#include "json/utf8.h"
#include "service/boundary.h"
#include "service/json_request.h"
#include "service/result_codes.h"

// What command handlers have in common.

namespace Vx::Tessel::Server::Services::Orvane {

// The boundary of a handler: runs `body`, which answers a result code. A standard exception becomes
// a log line and 0x20000002.
template <typename Body>
std::uint32_t Answer(const char* operation, const RequestCaller& caller, Body&& body) {
  try {
    return std::forward<Body>(body)();
  } catch (const std::exception& error) {
    Log(caller).LogError(kThrew, caller.className, operation, error.what());
    if (caller.problem != nullptr) {
      *caller.problem = {L"request", L"failed: ", Json::ToWide(error.what())};
    }
    return kFailed;
  }
}

// Puts an answer of one value into the response.
inline void AddAnswer(Json::WideDocument& response, std::wstring_view key,
                      Json::WideValue&& value) {
  Json::WideValue answer(rapidjson::kObjectType);
  AddMember(answer, key, std::move(value), response.GetAllocator());
  AddResult(response, std::move(answer));
}

}  // namespace Vx::Tessel::Server::Services::Orvane
