#include "vxhost/log/timeline_picture.h"

#include <algorithm>
#include <cmath>
#include <cwchar>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <utility>

#include "events/delivery_rules.h"
#include "events/subscription_delivery.h"
#include "events/subscription_forms.h"
#include "hosting/text.h"
#include "json/json_object.h"
#include "platform/windows_runtime_error.h"
#include "records/subscription_hash.h"
#include "service/dispatch.h"
#include "vxhost/common/console.h"
#include "vxhost/log/history.h"

namespace Vx::Host {

namespace {

using namespace Tessel::Server::Records;
using namespace Tessel::Server::Services::Orvane;
using std::chrono::milliseconds;

// As the player, the host and the simulated machine say it.
constexpr std::wstring_view kPowerEvent = L"power event ";
constexpr std::wstring_view kSession = L"session change ";
constexpr std::wstring_view kSleeps = L"the machine sleeps for ";
constexpr wchar_t kEntersStandby[] = L"the machine enters Modern Standby";
constexpr wchar_t kLeavesStandby[] = L"the machine leaves Modern Standby";

// The clocks of the log and of a record differ by this much at most.
constexpr milliseconds kRounding{20};

constexpr std::size_t kMachine = 0;
constexpr std::size_t kUser = 1;
constexpr std::size_t kService = 2;

constexpr EventCode kSessionCodes[] = {{1, L"a session is at the console"},
                                       {2, L"a session leaves the console"},
                                       {5, L"a user logs on"},
                                       {6, L"a user logs off"},
                                       {7, L"the session is locked"},
                                       {8, L"the session is unlocked"}};

// What lines of the service that are not about a delivery mean for its lane: the beginning or the
// end of a wait, and a mark.
enum class Wait : std::uint8_t { None, SetUp, User, Report, Aurelo };
constexpr struct {
  const wchar_t* contained;
  Wait begins;
  Wait ends;
  const wchar_t* text;  // of the wait that begins, otherwise of the mark; null for neither
  Tone tone;
} kServiceLines[] = {
    {L"OrvaneService: OOBE not completed", Wait::SetUp, Wait::None, L"first-run set-up", {}},
    {L"OrvaneService: Verified that OOBE completed.", Wait::None, Wait::SetUp,
     L"first-run set-up is complete", Tone::Good},
    {L"Wrote born on date to shared data store", Wait::None, Wait::None,
     L"the born-on date is stored", Tone::Good},
    {L"OrvaneService: start waiting for real user session", Wait::User, Wait::None, L"a user", {}},
    {L"OrvaneService: got real user session", Wait::None, Wait::User, L"a user is there",
     Tone::Good},
    {L"OrvaneService: waited for 2 hours for real user session", Wait::None, Wait::User,
     L"no user came for two hours", Tone::Dropped},
    {L"CheckToSendWakeupEvent: Started", Wait::Report, Wait::None, L"a user to report", {}},
    {L"FulfillZephraManagementEventRequests for: ", Wait::None, Wait::Report,
     L"the first user after the boot is reported", Tone::Good},
    {L"CheckToSendWakeupEvent: Not a new boot", Wait::None, Wait::Report, nullptr, {}},
    {L"Scheduling Vx Aurelo launch", Wait::Aurelo, Wait::None, L"an hour for Aurelo", {}},
    {L"Aurelo launched", Wait::None, Wait::Aurelo, L"Aurelo is started", Tone::Good},
    {L"Aurelo not launched", Wait::None, Wait::Aurelo, L"Aurelo is not started", Tone::Bad},
};

// The number behind `prefix`. Empty for another text.
std::optional<double> NumberAfter(std::wstring_view prefix, const std::wstring& text) {
  if (!text.starts_with(prefix)) return std::nullopt;
  return std::wcstod(text.c_str() + prefix.size(), nullptr);
}

std::wstring MeaningOrCode(std::span<const EventCode> codes, std::uint32_t code) {
  const wchar_t* meaning = MeaningOf(codes, code);
  return meaning != nullptr ? meaning : L"code " + std::to_wstring(code);
}

Tone ToneOf(Decision decision) {
  if (decision == Decision::Dropped) return Tone::Dropped;
  return IsFailure(decision) ? Tone::Bad : Tone::Good;
}

std::wstring Seconds(milliseconds length) {
  return std::to_wstring(length.count() / 1000) + L" s";
}

class Reader {
 public:
  Reader() {
    picture.lanes = {{LaneKind::Machine, L"Machine", {}},
                     {LaneKind::User, L"User", {}},
                     {LaneKind::Service, L"Service", {}}};
  }

  // Makes the lane of a client's text and returns it. Empty for one that never runs.
  std::optional<std::size_t> Learn(const std::wstring& text) {
    constexpr struct {
      const SubscriptionForm& form;
      Kind kind;
    } kForms[] = {
        {kPowerForm, Kind::Power}, {kZephraForm, Kind::Platform}, {kPackageForm, Kind::Uninstall}};
    try {
      const auto request = Json::JsonObject::Parse(text);
      for (const auto& row : kForms) {
        if (!request.HasKey(row.form.event)) continue;
        const EventSubscription read(text, row.form);
        const EventCommand& command = *read.Command();
        const int delay = LeadingInteger(command.DelayDeliverySec()).value_or(0);
        std::wstring event = NameOf(row.kind).text;
        event += L" " + (read.Family().empty() ? std::to_wstring(read.Type()) : read.Family());
        return LaneOf(SubscriptionHash(text), event, command.Target(), DelayLength(delay));
      }
    } catch (const Platform::WindowsRuntimeError&) {
      return std::nullopt;
    }
    return std::nullopt;
  }

  Picture Read(const std::vector<RecordStep>& steps, const std::vector<RecordEntry>& entries) {
    commands = !steps.empty();
    FindLines(entries);
    std::size_t step = 0;
    const auto announce = [&](std::size_t until) {
      for (; step < until; ++step) {
        if (steps[step].say.empty()) continue;
        picture.headings.push_back({picture.marks.size(), steps[step].begin, steps[step].say});
      }
    };
    for (std::size_t i = 0; i < entries.size(); ++i) {
      const RecordEntry& entry = entries[i];
      announce(std::min(entry.step, steps.size()));
      picture.end = std::max(picture.end, entry.at);
      FlushLines(entry.at);
      if (ofDelivery.contains(i)) {
        AddLine(lines[entry.thread], LineOf(entry));
      } else {
        Take(entry);
      }
      if (entry.log.record) TakeRecord(entry, *entry.log.record);
    }
    announce(steps.size());
    if (!steps.empty()) picture.end = std::max(picture.end, steps.back().end);
    Finish();
    return std::move(picture);
  }

 private:
  using Delivery = std::pair<std::uint32_t, std::uint64_t>;  // the process, and its number there

  // A delivery that waits.
  struct Open {
    std::size_t lane = 0;
    std::size_t bar = 0;
  };

  // A delivery has a thread of its own, or one of its event to itself. The lines of that thread
  // from its beginning to its record belong to it.
  void FindLines(const std::vector<RecordEntry>& entries) {
    std::map<std::uint32_t, std::vector<std::size_t>> threads;
    for (std::size_t i = 0; i < entries.size(); ++i) {
      const RecordEntry& entry = entries[i];
      if (entry.thread == 0) continue;
      std::vector<std::size_t>& since = threads[entry.thread];
      since.push_back(i);
      const auto& record = entry.log.record;
      if (!record) continue;
      if (record->decision == NameOf(Decision::Waiting).word) continue;
      if (record->delivery != 0) {
        const auto begin = entry.at - milliseconds(record->milliseconds) - kRounding;
        for (const std::size_t one : since) {
          if (entries[one].at >= begin) ofDelivery.insert(one);
        }
      }
      since.clear();
    }
  }

  static PictureLine LineOf(const RecordEntry& entry) {
    if (entry.what == Happening::Event) return {entry.at, entry.at, 1, L"EVENT", {}, entry.text};
    return {entry.at, entry.at, 1, entry.log.level, entry.log.caller, entry.log.message};
  }

  void Take(const RecordEntry& entry) {
    switch (entry.what) {
      case Happening::Call:
        TakeCall(entry.at, entry.text);
        break;
      case Happening::Command:
        TakeCommand(entry);
        break;
      case Happening::Event:
        TakeEvent(entry);
        break;
      case Happening::Log:
        TakeLog(entry);
        break;
      case Happening::Failure:
        Mark(kService, entry.at, Tone::Bad, L"not as expected", entry.text);
        break;
    }
  }

  PictureMark& Mark(std::size_t lane, milliseconds at, Tone tone, std::wstring text,
                    std::wstring reason = {}) {
    picture.marks.push_back({lane, at, tone, std::move(text), std::move(reason), {}});
    PictureMark& mark = picture.marks.back();
    if (picture.lanes[lane].kind == LaneKind::Subscription) return mark;
    mark.lines.swap(loose);
    last = picture.marks.size() - 1;
    return mark;
  }

  // Of polls, which repeat a few lines every second, each line is kept once.
  static void AddLine(std::vector<PictureLine>& lines, PictureLine line) {
    constexpr std::size_t kRound = 5;
    constexpr milliseconds kPoll{1000};
    const auto from = lines.end() - static_cast<std::ptrdiff_t>(std::min(kRound, lines.size()));
    const auto same = std::find_if(from, lines.end(), [&](const PictureLine& one) {
      return one.message == line.message && one.level == line.level &&
             line.first - one.last <= kPoll;
    });
    if (same == lines.end()) {
      lines.push_back(std::move(line));
    } else {
      same->count += line.count;
      same->last = line.last;
    }
  }

  // A line that is not about a delivery leads to the next mark of its moment. If there is none, it
  // follows the last one.
  void AddLine(PictureLine line) { AddLine(loose, std::move(line)); }

  void FlushLines(milliseconds now) {
    if (!last || loose.empty() || loose.back().last == now) return;
    for (PictureLine& line : loose) AddLine(picture.marks[*last].lines, std::move(line));
    loose.clear();
  }

  void TakeCall(milliseconds at, const std::wstring& text) {
    if (const auto power = NumberAfter(kPowerEvent, text)) {
      Mark(kMachine, at, Tone::Neutral, text,
           MeaningOrCode(kPowerCodes, static_cast<std::uint32_t>(*power)));
    } else if (const auto session = NumberAfter(kSession, text)) {
      Mark(kMachine, at, Tone::Neutral, text,
           MeaningOrCode(kSessionCodes, static_cast<std::uint32_t>(*session)));
    } else if (text == L"start" || text == L"end" || text == L"end and start") {
      if (text != L"start") EndDeliveries(at);
      Mark(kService, at, Tone::Neutral,
           L"the service " + (text == L"end and start" ? L"restarts" : text + L"s"));
    } else {
      Mark(kMachine, at, Tone::Neutral, text);
    }
  }

  void TakeCommand(const RecordEntry& entry) {
    constexpr std::uint32_t kSubscribe[] = {7, 9, 14};
    constexpr std::uint32_t kUnsubscribe[] = {15, 19};
    const bool done = entry.answer.code == 0;
    const bool takesBack = std::ranges::find(kUnsubscribe, entry.command) != std::end(kUnsubscribe);
    if (done &&
        (takesBack || std::ranges::find(kSubscribe, entry.command) != std::end(kSubscribe))) {
      if (const auto lane = Learn(entry.request)) {
        Mark(*lane, entry.at, Tone::Neutral, takesBack ? L"taken back" : L"subscribed",
             takesBack ? std::wstring() : entry.request);
        return;
      }
    }
    const wchar_t* name = CommandName(entry.command);
    const std::wstring text =
        name == nullptr ? L"command " + std::to_wstring(entry.command) : std::wstring(name);
    Mark(kService, entry.at, done ? Tone::Neutral : Tone::Bad, text,
         L"command " + std::to_wstring(entry.command) + L": " + Wide(Describe(entry.answer.code)) +
             (entry.answer.text ? L" " + *entry.answer.text : L""));
  }

  void TakeEvent(const RecordEntry& entry) {
    if (const auto sleep = NumberAfter(kSleeps, entry.text)) {
      const auto length = milliseconds(std::llround(*sleep * 1000));
      picture.bars.push_back(
          {kMachine, BarKind::Sleep, entry.at, entry.at + length, false, L"asleep"});
      picture.end = std::max(picture.end, entry.at + length);
    }
    if (entry.text == kEntersStandby && !standby) {
      standby = picture.bars.size();
      picture.bars.push_back(
          {kMachine, BarKind::Standby, entry.at, entry.at, true, L"Modern Standby"});
    }
    if (entry.text == kLeavesStandby && standby) {
      picture.bars[*standby].to = entry.at;
      picture.bars[*standby].open = false;
      standby.reset();
    }
    const auto contains = [&](const wchar_t* part) {
      return entry.text.find(part) != std::wstring::npos;
    };
    const bool message = contains(L" receives ");
    if (contains(L"are notified that the machine came up")) {
      AddLine(LineOf(entry));  // with every power event
      return;
    }
    const bool ofUser = contains(L" logs o") || contains(L" starts ") ||
                        contains(L" uninstalls ") || contains(L" cannot start ") || message;
    const bool refused = contains(L"cannot ") || (message && !entry.text.ends_with(L" returns 0"));
    Mark(ofUser ? kUser : kMachine, entry.at, refused ? Tone::Bad : Tone::Neutral, entry.text);
  }

  void TakeLog(const RecordEntry& entry) {
    const std::wstring& message = entry.log.message;
    if (StartsModule(entry.log) || EndsModule(entry.log)) {
      EndDeliveries(entry.at);
      Mark(kService, entry.at, Tone::Neutral,
           StartsModule(entry.log) ? L"the module is started" : message);
    } else if (entry.log.provider == kHostProvider) {
      if (NumberAfter(kPowerEvent, message)) TakeCall(entry.at, message);
    }
    for (const auto& rule : kServiceLines) {
      if (message.find(rule.contained) == message.npos) continue;
      if (rule.ends != Wait::None) EndWait(rule.ends, entry.at);
      if (rule.begins != Wait::None) {
        BeginWait(rule.begins, entry.at, rule.text);
      } else if (rule.text != nullptr) {
        AddLine(Mark(kService, entry.at, rule.tone, rule.text).lines, LineOf(entry));
        return;
      }
    }
    AddLine(LineOf(entry));
  }

  void TakeRecord(const RecordEntry& entry, const DecisionRecord& record) {
    const auto known = Understand(record);
    if (!known) return;
    const std::wstring decision = NameOf(known->decision).text;
    if (record.delivery == 0) {
      if (known->kind == Kind::Completion) {
        Mark(LaneOf(record.subscription, known->event, record.target), entry.at, Tone::Neutral,
             decision, known->why);
      } else if (!commands) {
        const bool ofList = !record.subscription.empty();
        std::wstring about = known->why + (known->why.empty() ? L"" : L", ");
        if (ofList) about += record.subscription + L", ";
        Mark(kService, entry.at, IsFailure(known->decision) ? Tone::Bad : Tone::Neutral,
             (ofList ? L"subscription" : known->event) + L" " + decision,
             about + L"client " + record.client);
      }
      return;
    }
    const Delivery delivery(entry.log.process, record.delivery);
    const milliseconds length(record.milliseconds);
    if (known->decision == Decision::Waiting) {
      const std::size_t lane = LaneOf(record.subscription, known->event, record.target, length);
      open[delivery] = {lane, picture.bars.size()};
      picture.bars.push_back(
          {lane, BarKind::Wait, entry.at, entry.at + length, false, Seconds(length)});
      return;
    }
    const auto waited = open.find(delivery);
    std::size_t lane = 0;
    if (waited != open.end()) {
      lane = waited->second.lane;
      PictureBar& bar = picture.bars[waited->second.bar];
      bar.to = std::min(bar.to, entry.at);
      open.erase(waited);
    } else {
      lane = LaneOf(record.subscription, known->event, record.target);
    }
    std::wstring why = known->why;
    if (record.process != 0) why = L"process " + std::to_wstring(record.process);
    Mark(lane, entry.at, ToneOf(known->decision), decision, why).lines =
        std::exchange(lines[entry.thread], {});
  }

  // The process ends or another one takes over, so that nothing of it waits any more.
  void EndDeliveries(milliseconds at) {
    EndWaits(at);
    for (const auto& [delivery, waiting] : open) {
      PictureBar& bar = picture.bars[waiting.bar];
      bar.to = std::min(bar.to, at);
      Mark(waiting.lane, at, Tone::Dropped, NameOf(Decision::Dropped).text, kCutOff);
    }
    open.clear();
  }

  void BeginWait(Wait wait, milliseconds at, const wchar_t* text) {
    if (waits.count(wait) != 0) return;
    waits[wait] = picture.bars.size();
    picture.bars.push_back(
        {kService, BarKind::Wait, at, at, true, std::wstring(L"waits for ") + text});
  }

  void EndWait(Wait wait, milliseconds at) {
    const auto found = waits.find(wait);
    if (found == waits.end()) return;
    picture.bars[found->second].to = at;
    picture.bars[found->second].open = false;
    waits.erase(found);
  }

  void EndWaits(milliseconds at) {
    while (!waits.empty()) EndWait(waits.begin()->first, at);
  }

  // The lane of a subscription, which is made with what is known of it at first.
  std::size_t LaneOf(const std::wstring& hash, const std::wstring& event,
                     const std::wstring& target, milliseconds delay = {}) {
    const auto [found, isNew] = lanes.try_emplace(hash, picture.lanes.size());
    if (!isNew) return found->second;
    PictureLane lane{LaneKind::Subscription, event, {}};
    if (delay > milliseconds(0)) lane.name += L" + " + Seconds(delay);
    const bool program = target.find(L'\\') != target.npos;
    const std::wstring name = target.substr(target.find_last_of(program ? L'\\' : L'/') + 1);
    if (!target.empty()) lane.detail = (program ? L"starts " : L"message to ") + name;
    picture.lanes.push_back(std::move(lane));
    return found->second;
  }

  void Finish() {
    for (const auto& [delivery, waiting] : open) {
      picture.bars[waiting.bar].open = true;
      Mark(waiting.lane, picture.end, Tone::Neutral, L"still waits");
    }
    for (PictureBar& bar : picture.bars) {
      if (bar.open) bar.to = picture.end;
    }
    FlushLines(milliseconds::max());
    if (!loose.empty()) Mark(kService, picture.end, Tone::Neutral, L"log lines");
  }

  Picture picture;
  std::vector<PictureLine> loose;    // not yet of a mark
  std::optional<std::size_t> last;   // mark that is not of a subscription
  std::set<std::size_t> ofDelivery;  // the entries that lead to the record of a delivery
  std::map<std::uint32_t, std::vector<PictureLine>> lines;  // of these, by thread
  std::map<std::wstring, std::size_t> lanes;                // by the hash of their subscription
  std::map<Delivery, Open> open;
  std::map<Wait, std::size_t> waits;   // to the bar
  std::optional<std::size_t> standby;  // the bar
  bool commands = false;               // the record has them, not only their lines
};

}  // namespace

Picture PictureOf(const std::vector<RecordStep>& steps, const std::vector<RecordEntry>& entries,
                  const std::vector<std::wstring>& stored) {
  Reader reader;
  for (const std::wstring& text : stored) reader.Learn(text);
  return reader.Read(steps, entries);
}

}  // namespace Vx::Host
