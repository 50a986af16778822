#include "servicehost/envelope.h"

#include <cstdio>
#include <utility>

#include "json/json_text.h"
#include "json/utf8.h"

namespace Vx::Hosting::ServiceHost {

namespace {

using Json::WideValue;

constexpr char kId[] = "id";
constexpr char kRequest[] = "request";
constexpr char kCode[] = "code";
constexpr char kResponse[] = "response";
constexpr char kRecord[] = "record";
constexpr wchar_t kDecision[] = L"decision";
constexpr wchar_t kReason[] = L"reason";

enum class Others { Refused, Ignored };

struct Members {
  std::optional<std::uint32_t> number;
  std::optional<std::wstring> text;
  std::wstring decision = {};
  std::wstring reason = {};
};

// Returns the member's text, empty if it has none.
std::wstring TextOf(const WideValue& object, const wchar_t* name) {
  const auto member = object.FindMember(name);
  if (member == object.MemberEnd() || !member->value.IsString()) return {};
  return {member->value.GetString(), member->value.GetStringLength()};
}

// Reads {NUMBER: n, TEXT: "..."}, where either member may be missing.
std::optional<Members> ParseMembers(std::string_view message, std::string_view numberName,
                                    std::string_view textName, Others others) {
  // Refusing nested values limits the memory that a client's message can take.
  const std::size_t nesting = others == Others::Refused ? 1 : Json::kMaxNesting;
  Json::WideDocument document;
  if (!Json::IsUtf8(message) || !Json::ParseJson(document, Json::ToWide(message), nesting) ||
      !document.IsObject()) {
    return std::nullopt;
  }
  Members members;
  for (auto member = document.MemberBegin(); member < document.MemberEnd(); ++member) {
    const WideValue& value = member->value;
    const std::string name =
        Json::ToUtf8({member->name.GetString(), member->name.GetStringLength()});
    if (name == numberName) {
      if (members.number || !value.IsUint()) return std::nullopt;
      members.number = value.GetUint();
    } else if (name == textName) {
      if (members.text || !value.IsString()) return std::nullopt;
      members.text.emplace(value.GetString(), value.GetStringLength());
    } else if (others == Others::Refused) {
      return std::nullopt;
    } else if (name == kRecord && value.IsObject()) {
      members.decision = TextOf(value, kDecision);
      members.reason = TextOf(value, kReason);
    }
  }
  return members;
}

std::string WriteMembers(const char* numberName, std::uint32_t number, const char* textName,
                         const std::wstring* text) {
  std::string message = "{\"" + std::string(numberName) + "\":" + std::to_string(number);
  if (text != nullptr) {
    message += ",\"" + std::string(textName) + "\":";
    AppendJsonString(message, *text);
  }
  return message;
}

}  // namespace

std::optional<CommandEnvelope> ParseCommand(std::string_view message) {
  if (message.size() > kLongestCommand) return std::nullopt;
  auto members = ParseMembers(message, kId, kRequest, Others::Refused);
  if (!members || !members->number || !members->text) return std::nullopt;
  if (members->text->find(L'\0') != std::wstring::npos) return std::nullopt;
  return CommandEnvelope{*members->number, std::move(*members->text)};
}

std::optional<ResultEnvelope> ParseResult(std::string_view message) {
  if (message.size() > kLongestResult) return std::nullopt;
  auto members = ParseMembers(message, kCode, kResponse, Others::Ignored);
  if (!members || !members->number) return std::nullopt;
  return ResultEnvelope{*members->number, std::move(members->text), std::move(members->decision),
                        std::move(members->reason)};
}

std::string WriteCommand(const CommandEnvelope& command) {
  return WriteMembers(kId, command.id, kRequest, &command.request) + "}";
}

std::string WriteResult(const ResultEnvelope& result) {
  std::string message =
      WriteMembers(kCode, result.code, kResponse, result.response ? &*result.response : nullptr);
  if (!result.decision.empty()) {
    message += R"(,"record":{"decision":)";
    AppendJsonString(message, result.decision);
    message += R"(,"reason":)";
    AppendJsonString(message, result.reason);
    message += '}';
  }
  return message + "}";
}

void AppendJsonString(std::string& out, std::wstring_view text) {
  out += '"';
  std::size_t plain = 0;  // start of the pending units that need no escape
  const auto flush = [&](std::size_t end) {
    out += Json::ToUtf8(text.substr(plain, end - plain));
    plain = end + 1;
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto unit = static_cast<std::uint32_t>(text[i]);
    const bool quoted = unit == '"' || unit == '\\';
    if (!quoted && unit >= 0x20) continue;
    flush(i);
    if (quoted) {
      out += {'\\', static_cast<char>(unit)};
      continue;
    }
    char escape[8];
    static_cast<void>(std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(unit)));
    out += escape;
  }
  if (plain < text.size()) out += Json::ToUtf8(text.substr(plain));
  out += '"';
}

}  // namespace Vx::Hosting::ServiceHost
