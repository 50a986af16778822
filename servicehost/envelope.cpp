#include "servicehost/envelope.h"

#include <utility>
#include <vector>

#include "hosting/json_row.h"
#include "json/json_text.h"
#include "json/utf8.h"

namespace Vx::Hosting::ServiceHost {

namespace {

using Json::WideDocument;
using Json::WideValue;

bool ParseObject(WideDocument& document, std::string_view message, std::size_t nesting) {
  return Json::IsUtf8(message) && Json::ParseJson(document, Json::ToWide(message), nesting) &&
         document.IsObject();
}

// Returns the values of all members with this name.
std::vector<const WideValue*> Named(const WideValue& object, const wchar_t* name) {
  std::vector<const WideValue*> values;
  for (auto member = object.MemberBegin(); member < object.MemberEnd(); ++member) {
    if (member->name == name) values.push_back(&member->value);
  }
  return values;
}

std::wstring TextOf(const WideValue& text) {
  return {text.GetString(), text.GetStringLength()};
}

// Returns the text of the first member with this name, or "" if it is missing or not a string.
std::wstring TextIn(const WideValue& object, const wchar_t* name) {
  const auto values = Named(object, name);
  return values.empty() || !values.front()->IsString() ? L"" : TextOf(*values.front());
}

}  // namespace

std::optional<CommandEnvelope> ParseCommand(std::string_view message) {
  // Rejecting nested values limits the memory that a client's message can use.
  constexpr std::size_t kNesting = 1;
  WideDocument document;
  if (message.size() > kLongestCommand || !ParseObject(document, message, kNesting) ||
      document.MemberCount() != 2) {
    return std::nullopt;
  }
  const auto id = Named(document, L"id");
  const auto request = Named(document, L"request");
  if (id.size() != 1 || !id[0]->IsUint() || request.size() != 1 || !request[0]->IsString()) {
    return std::nullopt;
  }
  std::wstring text = TextOf(*request[0]);
  if (text.find(L'\0') != std::wstring::npos) return std::nullopt;
  return CommandEnvelope{id[0]->GetUint(), std::move(text)};
}

std::optional<CommandResult> ParseResult(std::string_view message) {
  WideDocument document;
  if (message.size() > kLongestResult || !ParseObject(document, message, Json::kMaxNesting)) {
    return std::nullopt;
  }
  const auto code = Named(document, L"code");
  const auto response = Named(document, L"response");
  if (code.size() != 1 || !code[0]->IsUint() || response.size() > 1) return std::nullopt;
  CommandResult result{.code = code[0]->GetUint(), .text = {}};
  if (!response.empty()) {
    if (!response[0]->IsString()) return std::nullopt;
    result.text = TextOf(*response[0]);
  }
  for (const WideValue* record : Named(document, L"record")) {
    if (!record->IsObject()) continue;
    result.decision = TextIn(*record, L"decision");
    result.reason = TextIn(*record, L"reason");
  }
  return result;
}

std::string WriteCommand(const CommandEnvelope& command) {
  return Json::ToUtf8(JsonRow{{L"id", command.id}, {L"request", command.request}}.Text());
}

std::string WriteResult(const CommandResult& result) {
  JsonRow row{{L"code", result.code}};
  if (result.text) row.Add({L"response", *result.text});
  if (!result.decision.empty()) {
    row.Add({L"record", JsonRow{{L"decision", result.decision}, {L"reason", result.reason}}});
  }
  return Json::ToUtf8(row.Text());
}

}  // namespace Vx::Hosting::ServiceHost
