

#include "support/test.h"
#include "vxhost/log/timeline_page.h"

namespace Vx::Hosting::Tool {
namespace {

constexpr wchar_t kRequest[] =
    LR"({"powerEventType":18,"eventAction":1,"commandParams":{"path":"C:\\a<b>&\".exe","delayDeliverySec":"10"}})";

RecordEntry Entry(Happening what, const std::wstring& text) {
  return {.at = 95s, .what = what, .text = text, .log = {}, .request = {}, .answer = {}};
}

TEST(PageTest, WritesWhatHappenedAndEscapesWhatClientsChoose) {
  RecordEntry command = Entry(Happening::Command, {});
  command.command = 9;
  command.request = kRequest;
  RecordEntry decided = Entry(Happening::Log, {});
  decided.log = {.level = L"INFO", .provider = {}, .caller = {}, .message = L"a\nb", .process = 4};
  decided.log.record = {
      .kind = L"power", .decision = L"dropped", .reason = L"service_ended", .delivery = 7};
  RecordEntry later = decided;
  later.log.record->kind = L"of a later version";
  const std::string page = TimelinePage(
      {.title = L"</title><b>", .verdict = L"<!--", .met = false}, {{.say = L"<i>", .end = 99s}},
      {Entry(Happening::Event, L"<script>alert('1')</script>\x1b[2J\x202e logs on"), command,
       decided, later},
      {L"{}",
       LR"({"catalogEvent":7,"catalogAction":1,"packageFamilyName":"Maker<","catalogActionParams":{"path":"C:\\a"}})"});
  for (const char* wanted :
       {R"("title":"\u003c/title>\u003cb>")", R"("verdict":"\u003c!--")",
        R"("met":false,"end":99000)", "[\n\"\\u003ci>\"]",
        "\\u003cscript>alert('1')\\u003c/script>\xEF\xBF\xBD[2J\xEF\xBF\xBD logs on",
        R"("event":"power 18","target":"C:\\a\u003cb>&\".exe","milliseconds":10000})",
        "\"stored\":[\nnull\n,{\"subscription\":",
        R"("event":"uninstall Maker\u003c","target":"C:\\a")",
        R"("text":2,"thread":0,"level":"INFO","record":{"kind":"power",)",
        R"("decision":"dropped","tone":"dropped","why":"the service ended while it waited")",
        R"("delivery":"4.7"}})", R"("text":2,"thread":0,"level":"INFO"})"}) {
    EXPECT_THAT(page, HasSubstr(wanted));
  }
  for (const char* never : {"alert('1')<", "\x1b", "http://", "https://", "src=", "{{"}) {
    EXPECT_THAT(page, Not(HasSubstr(never)));
  }
}

}  // namespace
}  // namespace Vx::Hosting::Tool
