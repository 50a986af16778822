#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>

#include "host/logging.h"
#include "json/json_text.h"
#include "platform/runtime/type_name.h"
#include "records/record.h"

namespace Vx::Tessel::Server::Services::Orvane {

class OrvaneService;

// What is wrong with a request, for the one log line that explains a refusal. A refusal allocates
// nothing: the first two members point to constants.
struct RequestProblem {
  const wchar_t* key = nullptr;  // the member or argument, null while nothing is wrong
  const wchar_t* what = L"";     // continues the sentence that `key` begins
  std::wstring detail = {};      // ends the sentence
  Records::Reason reason = Records::Reason::BadMember;
};

// The client on whose behalf an accessor reads, and the class that its log lines name.
struct RequestCaller {
  const wchar_t* clientId = nullptr;
  RequestProblem* problem = nullptr;  // receives the last fault found, may be null
  const char* className = Platform::TypeName<OrvaneService>();
};

// The service's logger, for lines about this caller.
inline Logging::TraceLogger::ForCaller Log(const RequestCaller& caller) {
  return Logging::LogManager::GetLogger()->For(caller.clientId);
}

struct NullCheck {
  const void* pointer;
  const char* name;
};

// The checked accessors of a request document. None throws for bad input: each logs a missing or
// mistyped member as a warning and returns false or an empty text. An identity of more than 64
// characters ends the process.

// Returns true when at least one pointer is null. Logs every null pointer.
bool NullChecker(std::initializer_list<NullCheck> checks, const RequestCaller& caller);

// Finds a member of the root object. `*outJsonValue` lives as long as the document.
bool GetJsonValue(const Json::WideDocument* document, const wchar_t* jsonName,
                  const Json::WideValue** outJsonValue, const RequestCaller& caller);

// Finds the text of a string member. It lives as long as the document, and an escaped NUL in it
// ends it for every reader.
bool ParseJsonValue(const Json::WideDocument* document, const wchar_t* jsonName,
                    const wchar_t** resultValue, const RequestCaller& caller);

// Reads the boolean member "launched".
bool ParseJsonValue(const Json::WideDocument* document, bool* resultValue,
                    const RequestCaller& caller);

// Return "keyName" as UTF-8, "parameter" or "packageFamilyName". Empty when it cannot be read.
std::string SkipAutoLaunchCriteriaRequest(const Json::WideDocument* document,
                                          const RequestCaller& caller);
std::wstring LaunchQuboWithParameterRequest(const Json::WideDocument* document,
                                            const RequestCaller& caller);
std::wstring IsUwpInstalledRequest(const Json::WideDocument* document, const RequestCaller& caller);

// The most characters that a response may have.
inline constexpr std::size_t kMaxResponseLength = 65536;

// Adds `value` to `object`. `key` is a literal and is not copied.
void AddMember(Json::WideValue& object, std::wstring_view key, Json::WideValue&& value,
               Json::WidePool& allocator);

// Adds a handler's result to the response document, under "result".
void AddResult(Json::WideDocument& response, Json::WideValue&& result);

}  // namespace Vx::Tessel::Server::Services::Orvane
