#include "servicehost/envelope.h"

#include <cstdio>
#include <limits>
#include <utility>

#include "json/utf8.h"

namespace Vx::Host {

namespace {

using Unit = std::uint32_t;

constexpr char kId[] = "id";
constexpr char kRequest[] = "request";
constexpr char kCode[] = "code";
constexpr char kResponse[] = "response";

bool IsLead(Unit unit) {
  return unit >= 0xD800 && unit < 0xDC00;
}
bool IsTrail(Unit unit) {
  return unit >= 0xDC00 && unit < 0xE000;
}

// Reads the flat objects of this protocol. Every Take function returns an empty value, or false, if
// the text at hand is of another form.
class Reader {
 public:
  explicit Reader(std::string_view message) : rest(message) {}

  // Skips blanks, then `token` if it is next.
  bool Take(char token) {
    const std::size_t start = rest.find_first_not_of(" \t\r\n");
    rest.remove_prefix(start == std::string_view::npos ? rest.size() : start);
    if (rest.empty() || rest.front() != token) return false;
    rest.remove_prefix(1);
    return true;
  }

  bool AtEnd() { return rest.find_first_not_of(" \t\r\n") == std::string_view::npos; }

  std::optional<std::uint32_t> TakeNumber() {
    const std::size_t start = rest.find_first_not_of(" \t\r\n");
    if (start == std::string_view::npos) return std::nullopt;
    rest.remove_prefix(start);
    std::uint64_t value = 0;
    std::size_t digits = 0;
    while (digits < rest.size() && rest[digits] >= '0' && rest[digits] <= '9') {
      value = value * 10 + static_cast<std::uint64_t>(rest[digits++] - '0');
      if (value > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
    }
    if (digits == 0 || (digits > 1 && rest.front() == '0')) return std::nullopt;
    rest.remove_prefix(digits);
    return static_cast<std::uint32_t>(value);
  }

  std::optional<std::wstring> TakeString() {
    if (!Take('"')) return std::nullopt;
    std::wstring text;
    while (true) {
      const std::size_t run = rest.find_first_of("\"\\");
      if (run == std::string_view::npos) return std::nullopt;
      const std::string_view plain = rest.substr(0, run);
      for (const char c : plain) {
        if (static_cast<unsigned char>(c) < 0x20) return std::nullopt;
      }
      if (!Json::IsUtf8(plain)) return std::nullopt;
      text += Json::ToWide(plain);
      const bool ends = rest[run] == '"';
      rest.remove_prefix(run + 1);
      if (ends) return text;
      if (!TakeEscape(text)) return std::nullopt;
    }
  }

 private:
  bool TakeEscape(std::wstring& text) {
    static constexpr std::string_view kLetters = "\"\\/bfnrt";
    static constexpr wchar_t kMeanings[] = L"\"\\/\b\f\n\r\t";
    if (rest.empty()) return false;
    const char letter = rest.front();
    rest.remove_prefix(1);
    if (letter != 'u') {
      const std::size_t known = kLetters.find(letter);
      if (known == std::string_view::npos) return false;
      text += kMeanings[known];
      return true;
    }
    if (rest.size() < 4) return false;
    Unit unit = 0;
    for (const char digit : rest.substr(0, 4)) {
      static constexpr std::string_view kDigits = "0123456789abcdef";
      const char lower = digit >= 'A' && digit <= 'F' ? static_cast<char>(digit + 32) : digit;
      const std::size_t value = kDigits.find(lower);
      if (value == std::string_view::npos) return false;
      unit = unit * 16 + static_cast<Unit>(value);
    }
    rest.remove_prefix(4);
    text += static_cast<wchar_t>(unit);
    return true;
  }

  std::string_view rest;
};

struct Members {
  std::optional<std::uint32_t> number;
  std::optional<std::wstring> text;
};

// Reads {NUMBER: n, TEXT: "..."}, where either may be missing.
std::optional<Members> ParseMembers(std::string_view message, std::wstring_view numberName,
                                    std::wstring_view textName) {
  Reader reader(message);
  Members members;
  if (!reader.Take('{')) return std::nullopt;
  do {
    const auto name = reader.TakeString();
    if (!name || !reader.Take(':')) return std::nullopt;
    if (*name == numberName && !members.number) {
      members.number = reader.TakeNumber();
      if (!members.number) return std::nullopt;
    } else if (*name == textName && !members.text) {
      members.text = reader.TakeString();
      if (!members.text) return std::nullopt;
    } else {
      return std::nullopt;
    }
  } while (reader.Take(','));
  if (!reader.Take('}') || !reader.AtEnd()) return std::nullopt;
  return members;
}

std::string WriteMembers(const char* numberName, std::uint32_t number, const char* textName,
                         const std::wstring* text) {
  std::string message = "{\"" + std::string(numberName) + "\":" + std::to_string(number);
  if (text != nullptr) {
    message += ",\"" + std::string(textName) + "\":";
    AppendJsonString(message, *text);
  }
  return message + "}";
}

}  // namespace

std::optional<CommandEnvelope> ParseCommand(std::string_view message) {
  if (message.size() > kLongestCommand) return std::nullopt;
  auto members = ParseMembers(message, Json::ToWide(kId), Json::ToWide(kRequest));
  if (!members || !members->number || !members->text) return std::nullopt;
  if (members->text->find(L'\0') != std::wstring::npos) return std::nullopt;
  return CommandEnvelope{*members->number, std::move(*members->text)};
}

std::optional<ResultEnvelope> ParseResult(std::string_view message) {
  if (message.size() > kLongestResult) return std::nullopt;
  auto members = ParseMembers(message, Json::ToWide(kCode), Json::ToWide(kResponse));
  if (!members || !members->number) return std::nullopt;
  return ResultEnvelope{*members->number, std::move(members->text)};
}

std::string WriteCommand(const CommandEnvelope& command) {
  return WriteMembers(kId, command.id, kRequest, &command.request);
}

std::string WriteResult(const ResultEnvelope& result) {
  return WriteMembers(kCode, result.code, kResponse, result.response ? &*result.response : nullptr);
}

void AppendJsonString(std::string& out, std::wstring_view text) {
  out += '"';
  std::size_t plain = 0;  // where the units begin that need no escape
  const auto flush = [&](std::size_t end) {
    out += Json::ToUtf8(text.substr(plain, end - plain));
    plain = end + 1;
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto unit = static_cast<Unit>(text[i]) & 0xFFFF;
    if (IsLead(unit) && i + 1 < text.size() && IsTrail(static_cast<Unit>(text[i + 1]))) {
      ++i;
      continue;
    }
    const bool quoted = unit == '"' || unit == '\\';
    if (!quoted && unit >= 0x20 && !IsLead(unit) && !IsTrail(unit)) continue;
    flush(i);
    if (quoted) {
      out += {'\\', static_cast<char>(unit)};
      continue;
    }
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(unit));
    out += escape;
  }
  if (plain < text.size()) out += Json::ToUtf8(text.substr(plain));
  out += '"';
}

}  // namespace Vx::Host
