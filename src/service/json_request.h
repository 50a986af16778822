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

// Describes what is wrong with a request, for the log. Noting a fault must not allocate memory, so
// the first two members point to constants.
struct RequestProblem {
  const wchar_t* key = nullptr;  // the member or argument, null if nothing is wrong
  const wchar_t* what = L"";     // appended to `key` in the message
  std::wstring detail = {};      // ends the message
  Records::Reason reason = Records::Reason::BadMember;
};

// The client on whose behalf an accessor reads, and the class named in its log lines.
struct RequestCaller {
  const wchar_t* clientId = nullptr;
  RequestProblem* problem = nullptr;  // receives the last fault found, may be null
  const char* className = Platform::TypeName<OrvaneService>();
};

inline Logging::TraceLogger::ForCaller Log(const RequestCaller& caller) {
  return Logging::LogManager::GetLogger()->For(caller.clientId);
}

struct NullCheck {
  const void* pointer;
  const char* name;
};

// Checked accessors of a request document. None throws for bad input: each logs a missing or
// mistyped member as a warning and returns false or an empty string. An identity of more than 64
// characters terminates the process.

// Logs every null pointer. Returns true if there is one.
bool NullChecker(std::initializer_list<NullCheck> checks, const RequestCaller& caller);

// Finds a member of the root object. The member lives as long as the document.
bool GetJsonValue(const Json::WideDocument* document, const wchar_t* jsonName,
                  const Json::WideValue** outJsonValue, const RequestCaller& caller);

// Finds a string member. The string lives as long as the document and ends at an escaped NUL.
bool ParseJsonValue(const Json::WideDocument* document, const wchar_t* jsonName,
                    const wchar_t** resultValue, const RequestCaller& caller);

// Reads the boolean member "launched".
bool ParseJsonValue(const Json::WideDocument* document, bool* resultValue,
                    const RequestCaller& caller);

// Return the string under "keyName" (as UTF-8), "parameter" or "packageFamilyName", or an empty
// string if it cannot be read.
std::string SkipAutoLaunchCriteriaRequest(const Json::WideDocument* document,
                                          const RequestCaller& caller);
std::wstring LaunchQuboWithParameterRequest(const Json::WideDocument* document,
                                            const RequestCaller& caller);
std::wstring IsUwpInstalledRequest(const Json::WideDocument* document, const RequestCaller& caller);

// In characters.
inline constexpr std::size_t kMaxResponseLength = 65536;

// Adds a member. `key` must be a literal, because it is not copied.
void AddMember(Json::WideValue& object, std::wstring_view key, Json::WideValue&& value,
               Json::WidePool& allocator);

// Adds a handler's result to the response, under "result".
void AddResult(Json::WideDocument& response, Json::WideValue&& result);

}  // namespace Vx::Tessel::Server::Services::Orvane
