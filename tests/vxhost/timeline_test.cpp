#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "vxhost/log/timeline_page.h"
#include "vxhost/log/timeline_picture.h"

namespace Vx::Host {
namespace {

using std::chrono::milliseconds;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

constexpr wchar_t kRequest[] =
    LR"({"powerEventType":18,"eventAction":1,"commandParams":{"path":"C:\\a<b>&\".exe","delayDeliverySec":"10"}})";

RecordEntry LogEntry(milliseconds at, const std::wstring& message, std::uint32_t thread = 1) {
  return {.at = at,
          .what = Happening::Log,
          .thread = thread,
          .text = {},
          .log = {.level = L"INFO", .provider = {}, .caller = {}, .message = message},
          .request = {},
          .answer = {}};
}

RecordEntry Entry(Happening what, milliseconds at, const std::wstring& text) {
  return {.at = at, .what = what, .text = text, .log = {}, .request = {}, .answer = {}};
}

// A client subscribes, power event 18 comes, and its delivery logs these lines after its delay.
Picture Delivery(milliseconds length, const std::vector<std::wstring>& lines) {
  RecordEntry command = Entry(Happening::Command, 0ms, {});
  command.command = 9;
  command.request = kRequest;
  std::vector<RecordEntry> entries = {
      command, Entry(Happening::Call, 0ms, L"power event 18"),
      LogEntry(0ms, L"PowerEventManager::handle_event delay start: 10")};
  for (const std::wstring& line : lines) entries.push_back(LogEntry(length, line));
  return PictureOf({}, entries);
}

TEST(PictureTest, ShowsEachDecisionWithItsReason) {
  const std::wstring end = L"PowerEventManager::handle_event delay end: 10";
  const std::wstring executed =
      std::wstring(L"PowerEventManager::handle_event Executed: ") + kRequest;
  const std::wstring refused =
      L"LaunchCommand::Execute - C:\\a.exe not trusted to launch as system";
  const std::wstring trust = L"Security - IsFileTrusted - trusted by windows = ";
  const std::wstring raised = L"PowerEventManager::handle_event CustomTrigger raised: 5 ";
  const std::wstring dropped = L"PowerEventManager::handle_event Event discarded, ";
  const std::wstring standby =
      L"PowerEventManager::handle_event receive Modern Standby enter event";
  const std::wstring started = L"LaunchCommand::Execute returned with result ";
  const std::wstring variable = L"TrustedProgram - [a] is not opened, because it holds a variable";
  using enum Tone;
  const struct {
    milliseconds length;
    std::vector<std::wstring> lines;
    std::wstring decision;  // and its reason
    Tone tone;
  } kCases[] = {
      {10s, {end, started + L"1 and PID 7", executed}, L"the program starts: process 7", Good},
      {10s,
       {end, started + L"0 and PID 0", executed},
       L"the program does not start: Windows refused",
       Bad},
      {10s, {end, refused, executed}, L"refused: it lies outside the protected places", Bad},
      {10s,
       {end, trust + L"yes, trusted by Zephra = no", refused, executed},
       L"refused: it is signed with another key",
       Bad},
      {10s,
       {end, trust + L"no, trusted by Zephra = yes", refused, executed},
       L"refused: Windows does not trust its signature",
       Bad},
      {10s, {end, variable, refused, executed}, L"refused: its path holds a variable", Bad},
      {10s, {end, raised + kRequest}, L"the trigger is not raised: 0x00000005", Bad},
      {610s, {end, dropped + L"610000 ms"}, L"dropped: late by 600.000 s", Dropped},
      {3s,
       {standby, end, dropped + L"3000 ms"},
       L"dropped: Modern Standby ended its wait 7.000 s early",
       Dropped},
      {4s, {}, L"still waits: ", Neutral},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.lines));
    const Picture picture = Delivery(c.length, c.lines);
    const PictureMark& mark = picture.marks.back();
    EXPECT_EQ(mark.text + L": " + mark.reason, c.decision);
    EXPECT_EQ(mark.tone, c.tone);
    EXPECT_EQ(picture.lanes.at(mark.lane).name, L"power 18 + 10 s");
    ASSERT_EQ(picture.bars.size(), 1U);
    EXPECT_EQ(picture.bars[0].lane, mark.lane);
    EXPECT_EQ(picture.bars[0].to, c.lines.empty() ? 0ms : c.length);
    EXPECT_EQ(mark.lines.size(), c.lines.size() + 1);
  }
}

TEST(PictureTest, KeepsDeliveriesApartByTheirThreads) {
  const Picture picture =
      PictureOf({}, {LogEntry(0ms, L"PowerEventManager::handle_event delay start: 3", 1),
                     LogEntry(0ms, L"ZephraEventManager::handle_event delay: 4", 2),
                     LogEntry(3s, L"PowerEventManager::handle_event delay end: 3", 1),
                     LogEntry(4s, L"ZephraEventManager::handle_event delay end: 4", 2),
                     LogEntry(4s, L"ZephraEventManager::handle_event Event discarded, 9000 ms", 2),
                     LogEntry(5s, L"PowerEventManager::handle_event Event discarded, 6000 ms", 1)});
  ASSERT_EQ(picture.bars.size(), 2U);
  EXPECT_EQ(picture.bars[0].to, 4s);
  EXPECT_EQ(picture.bars[1].to, 3s);
  EXPECT_EQ(picture.marks.at(0).reason, L"late by 5.000 s");
  EXPECT_EQ(picture.marks.at(1).reason, L"late by 3.000 s");
}

TEST(PageTest, CountsWhatAPollRepeatsAndEscapesWhatClientsChoose) {
  std::vector<RecordEntry> entries = {Entry(Happening::Call, 0ms, L"start")};
  for (int second = 0; second < 90; ++second) {
    entries.push_back(LogEntry(second * 1s, L"no user"));
    entries.push_back(LogEntry(second * 1s, L"path = []"));
  }
  entries.push_back(
      Entry(Happening::Event, 95s, L"<script>alert('1')</script>\x1b[2J\x202e logs on"));
  RecordEntry command = Entry(Happening::Command, 96s, {});
  command.command = 9;
  command.request = kRequest;
  entries.push_back(command);
  const std::string page = TimelinePage({.title = L"</title><b>", .verdict = L"<!--", .met = false},
                                        PictureOf({}, entries));
  for (const char* wanted :
       {R"([0,89000,90,"INFO","",0])", R"([0,89000,90,"INFO","",1])", R"(["no user","path = []"])",
        "\\u003cscript>alert('1')\\u003c/script>\xEF\xBF\xBD[2J\xEF\xBF\xBD logs on",
        R"("starts a\u003cb>&\".exe")", R"("title":"\u003c/title>\u003cb>")",
        R"("verdict":"\u003c!--")", R"("met":false)"}) {
    EXPECT_THAT(page, HasSubstr(wanted));
  }
  for (const char* never : {"alert('1')<", "\x1b", "http://", "https://", "src=", "{{"}) {
    EXPECT_THAT(page, Not(HasSubstr(never)));
  }
}

}  // namespace
}  // namespace Vx::Host
