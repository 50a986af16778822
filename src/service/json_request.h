#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>

#include "host/logging.h"
#include "json/json_text.h"
#include "platform/type_name.h"

namespace Vx::Tessel::Server::Services::Orvane {

class OrvaneService;

// What was wrong with a request, for the one log line that explains a refused one. Refusing costs
// no allocation: the first two are constants of the program.
struct RequestProblem {
  const wchar_t* key = nullptr;  // the member or argument; null while nothing is known to be wrong
  const wchar_t* what = L"";     // continues the sentence that the key begins
  std::wstring detail = {};      // ends it
};

// On whose behalf an accessor reads, and what its log lines begin with.
struct RequestCaller {
  const wchar_t* clientId = nullptr;
  RequestProblem* problem = nullptr;  // receives the last thing that was wrong; may be null
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

// The checked accessors of a request document. None throws for bad input: each reports what is
// missing or mistyped as a warning and answers false or empty. An identity of more than 64
// characters ends the process.

// True when at least one pointer is null; every null one is reported.
bool NullChecker(std::initializer_list<NullCheck> checks, const RequestCaller& caller);

// Finds a member of the root object. `*outJsonValue` lives as long as the document.
bool GetJsonValue(const Json::WideDocument* document, const wchar_t* jsonName,
                  const Json::WideValue** outJsonValue, const RequestCaller& caller);

// The text of a string member, which lives as long as the document. An escaped NUL in it ends the
// text for every reader.
bool ParseJsonValue(const Json::WideDocument* document, const wchar_t* jsonName,
                    const wchar_t** resultValue, const RequestCaller& caller);

// The boolean member "launched".
bool ParseJsonValue(const Json::WideDocument* document, bool* resultValue,
                    const RequestCaller& caller);

// "keyName" as UTF-8, "parameter" and "packageFamilyName"; empty when it cannot be read.
std::string SkipAutoLaunchCriteriaRequest(const Json::WideDocument* document,
                                          const RequestCaller& caller);
std::wstring LaunchQuboWithParameterRequest(const Json::WideDocument* document,
                                            const RequestCaller& caller);
std::wstring IsUwpInstalledRequest(const Json::WideDocument* document, const RequestCaller& caller);

// Characters that a response may have.
inline constexpr std::size_t kMaxResponseLength = 65536;

// Adds `value` to `object`. `key` is a literal and is not copied.
void AddMember(Json::WideValue& object, std::wstring_view key, Json::WideValue&& value,
               Json::WidePool& allocator);

// Puts a handler's answer into the response document, under "result".
void AddResult(Json::WideDocument& response, Json::WideValue&& result);

}  // namespace Vx::Tessel::Server::Services::Orvane
