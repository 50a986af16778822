#include "vxhost/console.h"

#include <cstdio>

#include <io.h>

#include "json/json_text.h"
#include "vxhost/text.h"

namespace Vx::Host {

namespace {

constexpr struct {
  std::uint32_t code;
  const char* meaning;
} kCodes[] = {
    {0x00000000, "done"},
    {0x20000001, "no such command"},
    {0x20000002, "argument missing or command failed"},
    {0x20000003, "the request is not valid JSON"},
    {0x20000004, "no package of the family is installed"},
    {0x20000005, "the console user cannot be acted for"},
    {0x20000006, "unknown catalogEvent"},
    {0x20000007, "unknown action"},
    {0x20000008, "internal failure"},
    {0x20000009, "Windows Runtime failure, or subscribed already"},
    {0x2000000A, "this Windows has no interactive users"},
};

const char* Colour(const std::wstring& level) {
  if (level == L"ERROR") return "\x1b[31m";
  if (level == L"WARNING") return "\x1b[33m";
  return "\x1b[2m";
}

std::wstring JsonLine(const LogLine& line, const std::wstring& moment) {
  Json::WideDocument document(rapidjson::kObjectType);
  auto& allocator = document.GetAllocator();
  const auto add = [&](const wchar_t* key, const std::wstring& value) {
    document.AddMember(Json::WideValue(key, allocator), Json::WideValue(value, allocator),
                       allocator);
  };
  if (!moment.empty()) add(L"time", moment);
  add(L"level", line.level);
  add(L"provider", line.provider);
  add(L"caller", line.caller);
  add(L"message", line.message);
  return Json::JsonText(document);
}

}  // namespace

std::string Describe(std::uint32_t code) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", code);
  for (const auto& known : kCodes) {
    if (known.code == code) return std::string(text) + " (" + known.meaning + ")";
  }
  return text;
}

Console::Console(LogForm logForm) : form(logForm), coloured(_isatty(_fileno(stdout)) != 0) {}

void Console::Write(const std::string& text) {
  const std::lock_guard guard(lock);
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

void Console::Line(const std::string& text) {
  Write(Printable(text, LineBreaks::Replace));
}

void Console::Lines(const std::string& text) {
  Write(Printable(text, LineBreaks::Keep));
}

void Console::Heading(const std::string& text) {
  Lines("\n== " + text);
}

void Console::Request(std::uint32_t id, const std::wstring& request) {
  Lines("-> " + std::to_string(id) + " " + Utf8(request));
}

void Console::Result(const Answer& answer) {
  Line("<- " + (answer.text ? Utf8(*answer.text) : std::string("(no response)")));
  Line("   result " + Describe(answer.code));
}

void Console::Log(const LogLine& line, const std::wstring& moment) {
  if (form == LogForm::Json) {
    Line(Utf8(JsonLine(line, moment)));
    return;
  }
  const std::string caller = line.caller.empty() ? "" : " [" + Utf8(line.caller) + "]";
  const std::string text = Printable("   " + (moment.empty() ? "" : Utf8(moment) + " ") + "log " +
                                         Utf8(line.level) + caller + ": " + Utf8(line.message),
                                     LineBreaks::Replace);
  Write(coloured ? Colour(line.level) + text + "\x1b[0m" : text);
}

void Console::Failure(const std::string& text) {
  Line("!! " + text);
}

}  // namespace Vx::Host
