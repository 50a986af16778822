#include "vxhost/log/timeline_picture.h"

#include <algorithm>
#include <cmath>
#include <cwchar>
#include <iterator>
#include <map>
#include <optional>
#include <span>
#include <utility>

#include "events/delivery_rules.h"
#include "events/power_events.h"
#include "events/subscription_forms.h"
#include "events/zephra_events.h"
#include "hosting/text.h"
#include "json/json_object.h"
#include "platform/windows_runtime_error.h"
#include "service/dispatch.h"
#include "vxhost/common/console.h"
#include "vxhost/log/log_formats.h"

namespace Vx::Host {

namespace {

using namespace Tessel::Server::Services::Orvane;
using std::chrono::milliseconds;

using namespace LogFormat;

// As the player and the simulated machine say it.
constexpr wchar_t kReceives[] = L"%s receives %s and returns %s";
constexpr wchar_t kSession[] = L"session change %d";
constexpr wchar_t kSleeps[] = L"the machine sleeps for %s s";
constexpr wchar_t kEntersStandby[] = L"the machine enters Modern Standby";
constexpr wchar_t kLeavesStandby[] = L"the machine leaves Modern Standby";
constexpr wchar_t kPolicyChanged[] = L"the policy changed";
constexpr wchar_t kUserAfterBoot[] = L"FulfillZephraManagementEventRequests for: ";

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
    {kUserAfterBoot, Wait::None, Wait::Report, L"the first user after the boot is reported",
     Tone::Good},
    {L"CheckToSendWakeupEvent: Not a new boot", Wait::None, Wait::Report, nullptr, {}},
    {L"Scheduling Vx Aurelo launch", Wait::Aurelo, Wait::None, L"an hour for Aurelo", {}},
    {L"Aurelo launched", Wait::None, Wait::Aurelo, L"Aurelo is started", Tone::Good},
    {L"Aurelo not launched", Wait::None, Wait::Aurelo, L"Aurelo is not started", Tone::Bad},
};

std::uint32_t NumberOf(const std::wstring& text) {
  return static_cast<std::uint32_t>(std::wcstoul(text.c_str(), nullptr, 10));
}

std::wstring MeaningOrCode(std::span<const EventCode> codes, std::uint32_t code) {
  const wchar_t* meaning = MeaningOf(codes, code);
  return meaning != nullptr ? meaning : L"code " + std::to_wstring(code);
}

struct Subscription {
  const DeliveryKind* kind = nullptr;  // null for a package
  std::uint32_t event = 0;
  int delay = 0;
  std::wstring text;    // in the module's spelling
  std::wstring target;  // the path of its program, or FAMILY/SERVICE
  std::size_t lane = 0;
};

constexpr struct {
  const SubscriptionForm& form;
  const DeliveryKind* kind;
  const wchar_t* name;
} kForms[] = {{kPowerForm, &kPowerEvents, L"power "},
              {kZephraForm, &kZephraEvents, L"platform "},
              {kPackageForm, nullptr, L"uninstall "}};

class Reader {
 public:
  Reader() {
    picture.lanes = {{LaneKind::Machine, L"Machine", {}},
                     {LaneKind::User, L"User", {}},
                     {LaneKind::Service, L"Service", {}}};
  }

  // The subscription of a client's text. Null when it is not readable.
  const Subscription* Learn(const std::wstring& text) {
    try {
      const auto request = Json::JsonObject::Parse(text);
      const std::wstring spelt = request.Stringify();
      const auto found = std::find_if(subscriptions.begin(), subscriptions.end(),
                                      [&](const Subscription& one) { return one.text == spelt; });
      if (found != subscriptions.end()) return &*found;
      for (const auto& row : kForms) {
        if (!request.HasKey(row.form.event)) continue;
        return Add(row.form, row.kind, row.name, request);
      }
    } catch (const Platform::WindowsRuntimeError&) {
      return nullptr;  // it never runs
    }
    return nullptr;
  }

  Picture Read(const std::vector<RecordStep>& steps, const std::vector<RecordEntry>& entries) {
    commands = !steps.empty();
    std::size_t step = 0;
    const auto announce = [&](std::size_t until) {
      for (; step < until; ++step) {
        if (steps[step].say.empty()) continue;
        picture.headings.push_back({picture.marks.size(), steps[step].begin, steps[step].say});
      }
    };
    for (const RecordEntry& entry : entries) {
      announce(std::min(entry.step, steps.size()));
      picture.end = std::max(picture.end, entry.at);
      FlushLines(entry.at);
      Take(entry);
    }
    announce(steps.size());
    if (!steps.empty()) picture.end = std::max(picture.end, steps.back().end);
    Finish();
    return std::move(picture);
  }

 private:
  // A delivery whose decision has not been logged.
  struct Open {
    const DeliveryKind* kind = nullptr;
    std::uint32_t event = 0;
    int delay = 0;
    milliseconds begin{};
    std::optional<milliseconds> waited;  // until when
    bool standby = false;
    bool refused = false;
    std::wstring why;
    std::wstring outcome;
    Tone tone = Tone::Good;
    std::vector<PictureLine> lines;
  };

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
    if (const auto power = Match(kPowerEvent, text)) {
      powerEvent = NumberOf(power->front());
      Mark(kMachine, at, Tone::Neutral, text, MeaningOrCode(kPowerCodes, powerEvent));
    } else if (const auto session = Match(kSession, text)) {
      Mark(kMachine, at, Tone::Neutral, text,
           MeaningOrCode(kSessionCodes, NumberOf(session->front())));
    } else if (text == L"start" || text == L"end" || text == L"end and start") {
      if (text != L"start") EndWaits(at);
      Mark(kService, at, Tone::Neutral,
           L"the service " + (text == L"end and start" ? L"restarts" : text + L"s"));
    } else {
      if (text == kPolicyChanged) platformEvent = 1;
      Mark(kMachine, at, Tone::Neutral, text);
    }
  }

  void TakeCommand(const RecordEntry& entry) {
    constexpr std::uint32_t kSubscribe[] = {7, 9, 14};
    constexpr std::uint32_t kUnsubscribe[] = {15, 19};
    const auto has = [&](const auto& ids) {
      return std::find(std::begin(ids), std::end(ids), entry.command) != std::end(ids);
    };
    const bool done = entry.answer.code == 0;
    if (done && has(kSubscribe)) {
      if (const Subscription* known = Learn(entry.request)) {
        Mark(known->lane, entry.at, Tone::Neutral, L"subscribed", known->text);
        return;
      }
    }
    if (done && has(kUnsubscribe)) {
      const auto found =
          std::find_if(subscriptions.begin(), subscriptions.end(),
                       [&](const Subscription& one) { return one.text == entry.request; });
      if (found != subscriptions.end()) {
        Mark(found->lane, entry.at, Tone::Neutral, L"taken back");
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
    PictureLine line{entry.at, entry.at, 1, L"EVENT", {}, entry.text};
    if (const auto delivery = open.find(entry.thread); delivery != open.end()) {
      AddLine(delivery->second.lines, std::move(line));
      if (const auto message = Match(kReceives, entry.text)) {
        TakeMessage(delivery->second, message->back());
      }
      return;
    }
    if (const auto sleep = Match(kSleeps, entry.text)) {
      const auto length =
          milliseconds(std::llround(std::wcstod(sleep->front().c_str(), nullptr) * 1000));
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
    const auto message = Match(kReceives, entry.text);
    if (contains(L"are notified that the machine came up")) {
      AddLine(std::move(line));  // with every power event
      return;
    }
    const bool ofUser = contains(L" logs o") || contains(L" starts ") ||
                        contains(L" uninstalls ") || contains(L" cannot start ") || message;
    const bool refused = contains(L"cannot ") || (message && message->back() != L"0");
    Mark(ofUser ? kUser : kMachine, entry.at, refused ? Tone::Bad : Tone::Neutral, entry.text);
  }

  static void TakeMessage(Open& delivery, const std::wstring& status) {
    const bool sent = status == L"0";
    delivery.outcome = sent ? L"the message is sent" : L"the message is not sent";
    delivery.why = sent ? std::wstring() : L"status " + status;
    delivery.tone = sent ? Tone::Good : Tone::Bad;
  }

  void TakeLog(const RecordEntry& entry) {
    const std::wstring& message = entry.log.message;
    PictureLine line{entry.at, entry.at, 1, entry.log.level, entry.log.caller, message};
    for (const DeliveryKind* kind : {&kPowerEvents, &kZephraEvents}) {
      if (TakeDelivery(entry, *kind, line)) return;
    }
    if (const auto delivery = open.find(entry.thread); delivery != open.end()) {
      AddLine(delivery->second.lines, std::move(line));
      TakeEvidence(delivery->second, message);
      return;
    }
    if (PictureMark* mark = TakePackageOutcome(entry.at, message)) {
      AddLine(mark->lines, std::move(line));
      return;
    }
    if (Match(kPowerEvent, message)) TakeCall(entry.at, message);
    if (Match(kModuleStarted, message)) {
      EndDeliveries(entry.at);
      Mark(kService, entry.at, Tone::Neutral, L"the module is started");
    } else if (message == kModuleStopped) {
      EndDeliveries(entry.at);
      Mark(kService, entry.at, Tone::Neutral, message);
    } else if (const auto change = Match(kListChanged, message); change && !commands) {
      const bool refused = (*change)[1].starts_with(L"refused");
      Mark(kService, entry.at, refused ? Tone::Bad : Tone::Neutral, L"subscription " + (*change)[1],
           (*change)[0] + L", client " + entry.log.caller);
    }
    for (const auto& rule : kServiceLines) {
      if (message.find(rule.contained) == message.npos) continue;
      if (rule.contained == kUserAfterBoot) platformEvent = 2;
      if (rule.ends != Wait::None) EndWait(rule.ends, entry.at);
      if (rule.begins != Wait::None) {
        BeginWait(rule.begins, entry.at, rule.text);
      } else if (rule.text != nullptr) {
        AddLine(Mark(kService, entry.at, rule.tone, rule.text).lines, std::move(line));
        return;
      }
    }
    AddLine(std::move(line));
  }

  // The process ends or another one takes over, so that nothing of it waits any more.
  void EndDeliveries(milliseconds at) {
    EndWaits(at);
    for (auto& [thread, delivery] : open) {
      delivery.outcome = L"dropped";
      delivery.tone = Tone::Dropped;
      delivery.why = L"the service ended while it waited";
      Close(delivery, LaneOf(delivery, {}), at);
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

  bool TakeDelivery(const RecordEntry& entry, const DeliveryKind& kind, const PictureLine& line) {
    const std::wstring& message = entry.log.message;
    const auto found = open.find(entry.thread);
    const bool begun = found != open.end() && found->second.kind == &kind;
    // One kind's text for the beginning is also the beginning of the one for the end.
    if (const auto ended = Match(kind.texts.delayEnd, message); ended && begun) {
      found->second.waited = entry.at;
      AddLine(found->second.lines, line);
      return true;
    }
    const auto started = Match(kind.texts.delayStart, message);
    if (started || message == kind.texts.noDelay || message == kind.texts.delayUnreadable) {
      if (!begun) {
        open[entry.thread] = {.kind = &kind,
                              .event = &kind == &kPowerEvents ? powerEvent : platformEvent,
                              .delay = started ? static_cast<int>(NumberOf(started->front())) : 0,
                              .begin = entry.at,
                              .waited = {},
                              .why = {},
                              .outcome = {},
                              .lines = {}};
      }
      AddLine(open[entry.thread].lines, line);
      return true;
    }
    if (message == kind.texts.modernStandby && begun) {
      found->second.standby = true;
      AddLine(found->second.lines, line);
      return true;
    }
    return TakeEnding(entry, kind, line);
  }

  bool TakeEnding(const RecordEntry& entry, const DeliveryKind& kind, const PictureLine& line) {
    const std::wstring& message = entry.log.message;
    const auto ofKind = [&](const wchar_t* format) {
      auto parts = Match(format, message);
      if (parts && parts->front() != std::wstring(&kind == &kPowerEvents
                                                      ? L"PowerEventManager::handle_event"
                                                      : L"ZephraEventManager::handle_event"))
        parts.reset();
      return parts;
    };
    Open delivery{
        .kind = &kind, .begin = entry.at, .waited = {}, .why = {}, .outcome = {}, .lines = {}};
    const auto found = open.find(entry.thread);
    const bool begun = found != open.end() && found->second.kind == &kind;
    if (begun) delivery = found->second;
    std::wstring text;
    if (const auto executed = Match(kind.texts.executed, message)) {
      text = executed->back();
    } else if (const auto raised = Match(kind.texts.triggerRaised, message)) {
      text = raised->back();
      const std::uint32_t status = NumberOf(raised->front());
      delivery.outcome = status == 0 ? L"the trigger is raised" : L"the trigger is not raised";
      delivery.tone = status == 0 ? Tone::Good : Tone::Bad;
      if (status != 0) delivery.why = Wide(Describe(status));
    } else if (const auto discarded = Match(kind.texts.discarded, message)) {
      delivery.outcome = L"dropped";
      delivery.tone = Tone::Dropped;
      // A delay below zero is logged as none.
      delivery.why = Lateness(delivery.delay == 0 ? -1 : delivery.delay,
                              NumberOf(discarded->front()), delivery.standby);
    } else if (const auto failed = Match(kind.texts.workerFailed, message)) {
      delivery.outcome = L"failed";
      delivery.tone = Tone::Bad;
      delivery.why = failed->front();
    } else if (const auto many = ofKind(kTooMany)) {
      text = many->back();
      delivery.outcome = L"dropped";
      delivery.tone = Tone::Dropped;
      delivery.why = (*many)[1] + L" deliveries of " + (*many)[2] + L" already";
    } else if (const auto ended = ofKind(kServiceEnded)) {
      text = ended->back();
      delivery.outcome = L"dropped";
      delivery.tone = Tone::Dropped;
      delivery.why = L"the service ended while it waited";
    } else {
      return false;
    }
    if (begun) open.erase(found);
    AddLine(delivery.lines, line);
    Close(delivery, LaneOf(delivery, text), entry.at);
    return true;
  }

  void Close(const Open& delivery, std::size_t lane, milliseconds at) {
    const milliseconds until = delivery.waited.value_or(at);
    if (delivery.delay > 0 && until > delivery.begin) {
      picture.bars.push_back({lane, BarKind::Wait, delivery.begin, until, false,
                              std::to_wstring(delivery.delay) + L" s"});
    }
    const std::wstring outcome = delivery.outcome.empty() ? L"carried out" : delivery.outcome;
    PictureMark& mark = Mark(lane, at, delivery.tone, outcome, delivery.why);
    for (const PictureLine& line : delivery.lines) mark.lines.push_back(line);
  }

  // What the lines about a program or a message say. The trust check logs errors on the way to a
  // launch too: for each place that the program does not lie in, and for a catalog without it.
  static void TakeEvidence(Open& delivery, const std::wstring& message) {
    if (const auto closed = Match(kNotOpened, message)) {
      delivery.why = L"its path " + closed->back();
    } else if (const auto lock = Match(kLock, message)) {
      delivery.why = lock->back() == L"succeeded"
                         ? L"it carries no signature that Windows can verify"
                         : L"it is missing, or another process keeps it open for writing";
    } else if (const auto trusted = Match(kTrusted, message)) {
      delivery.why = trusted->front() != L"yes"  ? L"Windows does not trust its signature"
                     : trusted->back() != L"yes" ? L"it is signed with another key"
                                                 : L"it lies outside the protected places";
    } else if (Match(kNotTrusted, message)) {
      delivery.outcome = L"refused";
      delivery.tone = Tone::Bad;
      if (delivery.why.empty()) delivery.why = L"it lies outside the protected places";
    } else if (Match(kLaunching, message)) {
      delivery.why.clear();
    } else if (const auto launched = Match(kLaunched, message)) {
      const bool started = launched->front() != L"0";
      delivery.outcome = started ? L"the program starts" : L"the program does not start";
      delivery.tone = started ? Tone::Good : Tone::Bad;
      delivery.why = started ? L"process " + launched->back() : L"Windows refused";
    } else if (const auto unsent = Match(kNoMessage, message)) {
      TakeMessage(delivery, unsent->back());
    }
  }

  // A package event has no lines of its own around the command.
  PictureMark* TakePackageOutcome(milliseconds at, const std::wstring& message) {
    std::wstring target;
    Open delivery{.begin = at, .waited = {}, .why = {}, .outcome = {}, .lines = {}};
    if (const auto launching = Match(kLaunching, message)) {
      delivery.outcome = L"the program is started";
      target = launching->front();
    } else if (const auto refused = Match(kNotTrusted, message)) {
      TakeEvidence(delivery, message);
      target = refused->front();
    } else {
      return nullptr;
    }
    const auto found = std::find_if(
        subscriptions.begin(), subscriptions.end(),
        [&](const Subscription& one) { return one.kind == nullptr && one.target == target; });
    if (found == subscriptions.end()) return nullptr;
    return &Mark(found->lane, at, delivery.tone, delivery.outcome, delivery.why);
  }

  const Subscription* Add(const SubscriptionForm& form, const DeliveryKind* kind,
                          const wchar_t* name, const Json::JsonObject& request) {
    Subscription one{.kind = kind, .text = request.Stringify(), .target = {}};
    one.event = Json::TruncateToUint32(request.GetNamedNumber(form.event));
    const auto parameters = request.GetNamedObject(form.parameters);
    const auto delay = parameters.FindString(L"delayDeliverySec");
    if (delay) one.delay = LeadingInteger(*delay).value_or(0);
    PictureLane lane{LaneKind::Subscription, name, {}};
    lane.name +=
        form.family == nullptr ? std::to_wstring(one.event) : request.GetNamedString(form.family);
    if (one.delay > 0) lane.name += L" + " + std::to_wstring(one.delay) + L" s";
    if (const auto path = parameters.FindString(L"path")) {
      one.target = *path;
      lane.detail = L"starts " + path->substr(path->rfind(L'\\') + 1);
    } else {
      const std::wstring service = parameters.GetNamedString(L"appServiceName");
      one.target = parameters.GetNamedString(L"packageFamilyName") + L"/" + service;
      lane.detail = L"message to " + service;
    }
    one.lane = picture.lanes.size();
    picture.lanes.push_back(std::move(lane));
    subscriptions.push_back(std::move(one));
    return &subscriptions.back();
  }

  std::size_t LaneOf(const Open& delivery, const std::wstring& text) {
    if (!text.empty()) {
      const Subscription* known = Learn(text);
      if (known != nullptr) return known->lane;
    }
    const auto found =
        std::find_if(subscriptions.begin(), subscriptions.end(), [&](const Subscription& one) {
          return one.kind == delivery.kind && one.event == delivery.event &&
                 std::max(one.delay, 0) == delivery.delay;
        });
    if (found != subscriptions.end()) return found->lane;
    if (!unknownLane) {
      unknownLane = picture.lanes.size();
      picture.lanes.push_back(
          {LaneKind::Subscription, L"not known which", L"no line names the subscription"});
    }
    return *unknownLane;
  }

  void Finish() {
    for (auto& [thread, delivery] : open) {
      const std::size_t lane = LaneOf(delivery, {});
      picture.bars.push_back({lane, BarKind::Wait, delivery.begin, picture.end, true,
                              std::to_wstring(delivery.delay) + L" s"});
      PictureMark& mark = Mark(lane, picture.end, Tone::Neutral, L"still waits");
      for (PictureLine& line : delivery.lines) mark.lines.push_back(std::move(line));
    }
    for (PictureBar& bar : picture.bars) {
      if (bar.open) bar.to = picture.end;
    }
    FlushLines(milliseconds::max());
    if (!loose.empty()) Mark(kService, picture.end, Tone::Neutral, L"log lines");
  }

  Picture picture;
  std::vector<PictureLine> loose;   // not yet of a mark
  std::optional<std::size_t> last;  // mark that is not of a subscription
  std::vector<Subscription> subscriptions;
  std::map<std::uint32_t, Open> open;  // by thread
  std::map<Wait, std::size_t> waits;   // to the bar
  std::optional<std::size_t> standby;  // the bar
  std::optional<std::size_t> unknownLane;
  std::uint32_t powerEvent = 0;
  std::uint32_t platformEvent = 0;
  bool commands = false;  // the record has them, not only their lines
};

}  // namespace

Picture PictureOf(const std::vector<RecordStep>& steps, const std::vector<RecordEntry>& entries,
                  const std::vector<std::wstring>& stored) {
  Reader reader;
  for (const std::wstring& text : stored) reader.Learn(text);
  return reader.Read(steps, entries);
}

}  // namespace Vx::Host
