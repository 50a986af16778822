#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "records/subscription_hash.h"
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

// The line of a record about delivery `number`, by default of kRequest.
RecordEntry Decided(milliseconds at, DecisionRecord record, std::uint64_t number = 1,
                    std::uint32_t thread = 1) {
  if (record.kind.empty()) record.kind = L"power";
  if (record.number == 0) record.number = 18;
  if (record.subscription.empty()) {
    record.subscription = Tessel::Server::Records::SubscriptionHash(kRequest);
  }
  record.delivery = number;
  RecordEntry entry = LogEntry(at, L"a record", thread);
  entry.log.record = std::move(record);
  return entry;
}

const DecisionRecord kWaiting{.decision = L"waiting", .milliseconds = 10'000};

// A client subscribes, power event 18 comes, and its delivery waits and ends so.
Picture Delivery(const DecisionRecord& end) {
  RecordEntry command = Entry(Happening::Command, 0ms, {});
  command.command = 9;
  command.request = kRequest;
  std::vector<RecordEntry> entries = {command, Entry(Happening::Call, 0ms, L"power event 18"),
                                      LogEntry(0ms, L"of another thread", 2),
                                      LogEntry(0ms, L"delay start"), Decided(0ms, kWaiting)};
  const milliseconds length(end.milliseconds);
  if (!end.decision.empty()) {
    entries.push_back(LogEntry(length, L"the decision"));
    entries.push_back(Decided(length, end));
  }
  return PictureOf({}, entries);
}

TEST(PictureTest, ShowsEachDecisionWithItsReason) {
  using enum Tone;
  const struct {
    DecisionRecord end;
    std::wstring decision;  // and its reason
    Tone tone;
    milliseconds waited = 10s;
  } kCases[] = {
      {{.decision = L"ran", .process = 7, .milliseconds = 10'500}, L"ran: process 7", Good},
      {{.decision = L"not_started", .reason = L"windows", .status = 5, .milliseconds = 10'000},
       L"not started: Windows refused, status 0x00000005",
       Bad},
      {{.decision = L"refused", .reason = L"not_pinned", .milliseconds = 10'000},
       L"refused: it was not signed with a pinned key",
       Bad},
      {{.decision = L"refused", .reason = L"of a later version", .milliseconds = 10'000},
       L"refused: of a later version",
       Bad},
      {{.decision = L"dropped", .reason = L"late", .milliseconds = 610'000},
       L"dropped: too late",
       Dropped},
      {{.decision = L"dropped", .reason = L"standby", .milliseconds = 3000},
       L"dropped: Modern Standby ended its wait too early",
       Dropped,
       3s},
      {{.decision = L"dropped", .reason = L"service_ended", .milliseconds = 3000},
       L"dropped: the service ended while it waited",
       Dropped,
       3s},
      {{}, L"still waits: ", Neutral, 0s},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.decision));
    const Picture picture = Delivery(c.end);
    const PictureMark& mark = picture.marks.back();
    EXPECT_EQ(mark.text + L": " + mark.reason, c.decision);
    EXPECT_EQ(mark.tone, c.tone);
    EXPECT_EQ(picture.lanes.at(mark.lane).name, L"power 18 + 10 s");
    ASSERT_EQ(picture.bars.size(), 1U);
    EXPECT_EQ(picture.bars[0].lane, mark.lane);
    EXPECT_EQ(picture.bars[0].to, c.waited);
    EXPECT_EQ(mark.lines.size(), c.end.decision.empty() ? 0U : 4U);
  }
}

TEST(PictureTest, KeepsDeliveriesApartByTheirNumbersAndProcesses) {
  const DecisionRecord other{.kind = L"platform",
                             .decision = L"waiting",
                             .subscription = L"0badcafe",
                             .target = L"Maker.App_1/Resume",
                             .number = 1,
                             .milliseconds = 4000};
  DecisionRecord sent = other;
  sent.decision = L"sent";
  RecordEntry restarted = Decided(5s, sent, 2, 1);
  restarted.log.process = 9;  // counts anew
  RecordEntry started = LogEntry(9s, L"the module is started: Z:\\module.dll");
  started.log.provider = kHostProvider;
  const Picture picture =
      PictureOf({}, {Decided(0s, kWaiting, 1, 1), Decided(0s, other, 2, 1), Decided(4s, sent, 2, 1),
                     Decided(4s, other, 3, 1), restarted, started});
  ASSERT_EQ(picture.lanes.size(), 5U);
  EXPECT_EQ(picture.lanes[4].name, L"platform 1 + 4 s");
  EXPECT_EQ(picture.lanes[4].detail, L"message to Resume");
  std::vector<std::wstring> marks;
  for (const PictureMark& mark : picture.marks) marks.push_back(mark.text + L": " + mark.reason);
  EXPECT_THAT(marks, testing::ElementsAre(
                         L"sent: ", L"sent: ", L"dropped: its service ended before it did",
                         L"dropped: its service ended before it did", L"the module is started: "));
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
