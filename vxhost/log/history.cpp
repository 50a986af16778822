#include "vxhost/log/history.h"

#include <algorithm>
#include <chrono>
#include <cwchar>
#include <iterator>
#include <limits>
#include <utility>

#include "events/delivery_rules.h"
#include "events/power_events.h"
#include "events/zephra_events.h"
#include "hosting/text.h"
#include "json/json_object.h"
#include "json/json_text.h"
#include "platform/windows_runtime_error.h"
#include "records/subscription_hash.h"
#include "vxhost/log/log_formats.h"

namespace Vx::Host {

namespace {

using namespace Tessel::Server::Services::Orvane;

using namespace LogFormat;

constexpr wchar_t kNoLine[] =
    L"a message, or nothing because a user still has the package: no line says which";

constexpr wchar_t kNoThread[] = L"or over: without threads no line shows what became of it";

constexpr int kUnknownDelay = std::numeric_limits<int>::min();

constexpr const DeliveryKind* kKinds[] = {&kPowerEvents, &kZephraEvents};

const wchar_t* NameOf(const DeliveryKind& kind) {
  return &kind == &kPowerEvents ? L"power" : L"platform";
}

int NumberOf(const std::wstring& text) {
  return LeadingInteger(text).value_or(0);
}

std::wstring TextMember(const Json::WideDocument& line, const wchar_t* key) {
  const auto found = line.FindMember(key);
  if (found == line.MemberEnd() || !found->value.IsString()) return {};
  return {found->value.GetString(), found->value.GetStringLength()};
}

std::uint32_t NumberMember(const Json::WideDocument& line, const wchar_t* key) {
  const auto found = line.FindMember(key);
  return found != line.MemberEnd() && found->value.IsUint() ? found->value.GetUint() : 0;
}

}  // namespace

std::optional<HistoryLine> ParseHistoryLine(const std::string& text) {
  Json::WideDocument line;
  if (!Json::ParseJson(line, Wide(text)) || !line.IsObject()) return std::nullopt;
  HistoryLine result{TextMember(line, L"time"),     NumberMember(line, L"process"),
                     NumberMember(line, L"thread"), TextMember(line, L"caller"),
                     TextMember(line, L"message"),  TextMember(line, L"level")};
  if (result.time.empty() || result.message.empty()) return std::nullopt;
  return result;
}

std::optional<std::int64_t> MomentOf(const std::wstring& time) {
  using namespace std::chrono;  // NOLINT(google-build-using-namespace)
  int part[7] = {};
  const int count = std::swscanf(time.c_str(), L"%4d-%2d-%2dT%2d:%2d:%2d.%3d", &part[0], &part[1],
                                 &part[2], &part[3], &part[4], &part[5], &part[6]);
  const auto day = year(part[0]) / part[1] / part[2];
  if (count < 3 || !day.ok()) return std::nullopt;
  const auto moment =
      sys_days(day) + hours(part[3]) + minutes(part[4]) + seconds(part[5]) + milliseconds(part[6]);
  return duration_cast<milliseconds>(moment.time_since_epoch()).count();
}

const wchar_t* NameOf(Decision decision) {
  switch (decision) {
    case Decision::Ran:
      return L"ran";
    case Decision::Sent:
      return L"sent";
    case Decision::Raised:
      return L"raised";
    case Decision::Waiting:
      return L"waiting";
    case Decision::Accepted:
      return L"accepted";
    case Decision::Refused:
      return L"refused";
    case Decision::TakenBack:
      return L"taken back";
    case Decision::NotStarted:
      return L"not started";
    case Decision::NotSent:
      return L"not sent";
    case Decision::NotRaised:
      return L"not raised";
    case Decision::Dropped:
      return L"dropped";
    case Decision::Failed:
      return L"failed";
  }
  return L"";
}

bool IsFailure(Decision decision) {
  switch (decision) {
    case Decision::Ran:
    case Decision::Sent:
    case Decision::Raised:
    case Decision::Waiting:
    case Decision::Accepted:
    case Decision::TakenBack:
      return false;
    default:
      return true;
  }
}

void History::Add(const HistoryLine& line) {
  if (TakeListChange(line) || TakeHostLine(line) || TakePackageLine(line) || TakeLaunch(line)) {
    return;
  }
  for (const Kind* kind : kKinds) {
    if (TakeDelivery(line, *kind) || TakeEnding(line, *kind)) return;
  }
  TakeTrust(line);
}

bool History::TakeListChange(const HistoryLine& line) {
  const auto parts = Match(kListChanged, line.message);
  if (!parts) return false;
  HistoryRow row{.time = line.time, .event = L"command " + (*parts)[2]};
  row.subscriptions.push_back((*parts)[0]);
  row.decision = (*parts)[1].starts_with(L"accepted")  ? Decision::Accepted
                 : (*parts)[1].starts_with(L"refused") ? Decision::Refused
                                                       : Decision::TakenBack;
  row.detail = L"client " + line.caller;
  rows.push_back(std::move(row));
  return true;
}

bool History::TakeHostLine(const HistoryLine& line) {
  if (Match(kPowerEvent, line.message)) {
    powerEvent = L"power" + line.message.substr(line.message.rfind(L' '));
    return true;
  }
  if (line.message == kModuleStopped) stopped.insert(line.process);
  if (!Match(kModuleStarted, line.message)) return false;
  // No delivery outlives its module.
  stopped.erase(line.process);
  while (!open.empty()) CloseSilent(open.begin());
  return true;
}

// A package event has no line for its end: what follows on its thread belongs to it.
bool History::TakePackageLine(const HistoryLine& line) {
  const auto uninstall = Match(kUninstall, line.message);
  if (!uninstall && line.message != kRunningLate) return false;
  if (uninstall && (*uninstall)[0] != (*uninstall)[1]) return true;
  const Place begun = Begin(line, nullptr, 0);
  HistoryRow& row = rows[begun->row];
  row.event = uninstall ? L"uninstall " + (*uninstall)[0] : L"uninstall, late";
  if (!uninstall) return true;
  const auto [first, last] = packages.equal_range((*uninstall)[0]);
  for (auto one = first; one != last; ++one) row.subscriptions.push_back(one->second);
  return true;
}

bool History::TakeDelivery(const HistoryLine& line, const Kind& kind) {
  if (line.message == kind.texts.noDelay) {
    const Place begun = Find(line, [](const Open&) { return false; });
    if (begun == open.end() || !std::exchange(begun->unreadable, false)) Begin(line, &kind, 0);
    return true;
  }
  if (line.message == kind.texts.delayUnreadable) {
    if (line.thread == 0) return true;
    const Place begun = Begin(line, &kind, 0);
    begun->unreadable = true;
    rows[begun->row].detail = L"its delay is not a number";
    return true;
  }
  if (const auto ended = Match(kind.texts.delayEnd, line.message)) {
    const int delay = NumberOf(ended->front());
    const Place place = Find(line, [&](const Open& one) {
      return one.kind == &kind && one.delay == delay && !one.waited;
    });
    if (place != open.end()) place->waited = true;
    return true;
  }
  if (const auto started = Match(kind.texts.delayStart, line.message)) {
    Begin(line, &kind, NumberOf(started->front()));
    return true;
  }
  if (line.message == kind.texts.modernStandby) {
    const Place place = Find(
        line, [&](const Open& one) { return one.kind == &kind && one.delay > 0 && !one.waited; });
    if (place != open.end()) place->standby = true;
    return true;
  }
  return false;
}

bool History::TakeEnding(const HistoryLine& line, const Kind& kind) {
  const std::wstring name =
      std::wstring(&kind == &kPowerEvents ? L"PowerEventManager::handle_event"
                                          : L"ZephraEventManager::handle_event");
  const auto ofKind = [&](const wchar_t* format) {
    auto parts = Match(format, line.message);
    if (parts && parts->front() != name) parts.reset();
    return parts;
  };
  if (const auto executed = Match(kind.texts.executed, line.message)) {
    CloseExecuted(Of(line, kind, Learn(kind, executed->front())), line.time);
  } else if (const auto raised = Match(kind.texts.triggerRaised, line.message)) {
    wchar_t status[16];
    const unsigned long code = std::wcstoul(raised->front().c_str(), nullptr, 10);
    std::swprintf(status, std::size(status), L"0x%08lX", code);
    Close(Of(line, kind, Learn(kind, raised->back())), line.time,
          code == 0 ? Decision::Raised : Decision::NotRaised,
          code == 0 ? L"the trigger" : std::wstring(L"the trigger, status ") + status);
  } else if (const auto discarded = Match(kind.texts.discarded, line.message)) {
    const auto elapsed = static_cast<std::int64_t>(NumberOf(discarded->front()));
    const Place place = Find(line, [&](const Open& one) {
      return one.kind == &kind && (one.waited || (one.delay == 0 && elapsed == 0));
    });
    if (place == open.end()) return true;
    if (place->delay == 0) place->delay = -1;
    Close(place, line.time, Decision::Dropped, Lateness(place->delay, elapsed, place->standby));
  } else if (const auto failed = Match(kind.texts.workerFailed, line.message)) {
    // Without a thread, most likely one whose text could not be read and that left no other line.
    Place place = line.thread == 0 ? open.end() : Find(line, [](const Open&) { return false; });
    if (place == open.end()) place = Begin(line, &kind, kUnknownDelay);
    Close(place, line.time, Decision::Failed, failed->front());
  } else if (const auto ended = ofKind(kServiceEnded)) {
    Close(Of(line, kind, Learn(kind, ended->back()), Stage::Waiting), line.time, Decision::Dropped,
          L"the service ended while it waited");
  } else if (const auto many = ofKind(kTooMany)) {
    TakeUnstarted(line, kind, many->back(), Decision::Dropped,
                  (*many)[1] + L" deliveries of " + (*many)[2] + L" already");
  } else if (const auto lost = ofKind(kLost)) {
    TakeUnstarted(line, kind, lost->back(), Decision::Failed, (*lost)[1]);
  } else {
    return false;
  }
  return true;
}

// The line is one of the thread of the event, which delivers many.
void History::TakeUnstarted(const HistoryLine& line, const Kind& kind, const std::wstring& text,
                            Decision decision, const std::wstring& why) {
  const Known one = Learn(kind, text);
  const Place place = Begin({.time = line.time, .process = line.process}, &kind, one.delay);
  Name(place->row, one);
  Close(place, line.time, decision, why);
}

bool History::TakeLaunch(const HistoryLine& line) {
  if (const auto refused = Match(kNotTrusted, line.message)) {
    if (Facts* facts = FactsOf(line, refused->front())) {
      facts->refused = true;
      if (facts->why.empty() && line.thread != 0) {
        facts->why = facts->locked ? L"it lies outside the protected places" : L"";
      }
    }
  } else if (const auto launching = Match(kLaunching, line.message)) {
    FactsOf(line, looseLaunch = launching->front());
    return true;
  } else if (const auto launched = Match(kLaunched, line.message)) {
    Facts* facts = FactsOf(line, looseLaunch);
    const bool started = NumberOf(launched->front()) != 0;
    if (facts != nullptr) {
      facts->started =
          started ? static_cast<std::uint32_t>(std::wcstoul(launched->back().c_str(), nullptr, 10))
                  : 0;
    }
  } else if (const auto message = Match(kNoMessage, line.message)) {
    if (Facts* facts = FactsOf(line, (*message)[1] + L"/" + (*message)[0])) {
      facts->status = message->back();
    }
  } else {
    return false;
  }
  const Place package = Find(line, [](const Open&) { return false; });
  if (package != open.end() && package->kind == nullptr) CloseExecuted(package, line.time);
  return true;
}

// What the trust check logs on the way to a refusal. It logs errors on the way to a launch too: one
// for each place that the program does not lie in, and one for a catalog that does not list it.
void History::TakeTrust(const HistoryLine& line) {
  if (line.thread == 0) return;
  const Place place = Find(line, [](const Open&) { return false; });
  if (place == open.end()) return;
  Facts& facts = place->facts;
  if (const auto closed = Match(kNotOpened, line.message)) {
    facts.why = L"its path " + closed->back();
  } else if (const auto lock = Match(kLock, line.message)) {
    facts.locked = lock->back() == L"succeeded";
    facts.why = facts.locked ? L"it carries no signature that Windows can verify"
                             : L"it is missing, or another process keeps it open for writing";
  } else if (const auto trusted = Match(kTrusted, line.message)) {
    if (!facts.locked) return;
    facts.why = trusted->front() != L"yes"  ? L"Windows does not trust its signature"
                : trusted->back() != L"yes" ? L"it is signed with another key"
                                            : L"it lies outside the protected places";
  }
}

History::Place History::Begin(const HistoryLine& line, const Kind* kind, int delay) {
  // A thread has one delivery at a time, so the last one of it ended without a line.
  const Place before = Find(line, [](const Open&) { return false; });
  if (before != open.end()) CloseSilent(before);
  HistoryRow row{.time = line.time};
  if (kind != nullptr) row.event = kind == &kPowerEvents ? powerEvent : NameOf(*kind);
  rows.push_back(std::move(row));
  open.push_back({.row = rows.size() - 1,
                  .kind = kind,
                  .process = line.process,
                  .thread = line.thread,
                  .delay = delay,
                  .facts = {}});
  return std::prev(open.end());
}

// The newest delivery of the line's thread. Where that is not known, the oldest that `fits`.
template <typename Fits>
History::Place History::Find(const HistoryLine& line, const Fits& fits) {
  if (line.thread == 0) {
    return std::find_if(open.begin(), open.end(), [&](const Open& one) {
      return one.thread == 0 && one.process == line.process && fits(one);
    });
  }
  const auto last = std::find_if(open.rbegin(), open.rend(), [&](const Open& one) {
    return one.thread == line.thread && one.process == line.process;
  });
  return last == open.rend() ? open.end() : std::prev(last.base());
}

// The delivery whose line shows the whole text. Begun now if its first line is missing, as at the
// front of a log.
History::Place History::Of(const HistoryLine& line, const Kind& kind, const Known& text,
                           Stage stage) {
  Place place = Find(line, [&](const Open& one) {
    return one.kind == &kind && one.delay == std::max(text.delay, 0) &&
           (one.waited || one.delay == 0 || stage == Stage::Waiting);
  });
  if (place == open.end()) place = Begin(line, &kind, text.delay);
  Name(place->row, text);
  return place;
}

History::Facts* History::FactsOf(const HistoryLine& line, const std::wstring& path) {
  if (line.thread == 0) return &looseFacts[path];
  const Place place = Find(line, [](const Open&) { return false; });
  return place == open.end() ? nullptr : &place->facts;
}

History::Known History::Learn(const Kind& kind, const std::wstring& text) {
  Known one{.kind = &kind, .hash = {}, .delay = 0, .event = NameOf(kind)};
  try {
    const EventSubscription read(text, kind.form);
    const auto* const subscription = &read;
    one.event += L" " + std::to_wstring(subscription->Type());
    one.hash = Tessel::Server::Records::SubscriptionHash(text);
    if (const auto* launch = dynamic_cast<const LaunchCommand*>(subscription->Command())) {
      one.delay = NumberOf(launch->DelayDeliverySec());
      one.target = launch->Path();
    } else if (const auto* message =
                   dynamic_cast<const AppServiceNotificationCommand*>(subscription->Command())) {
      one.delay = NumberOf(message->DelayDeliverySec());
      one.target = message->PackageFamilyName() + L"/" + message->AppServiceName();
    }
  } catch (const Platform::WindowsRuntimeError&) {
    return one;  // a long text is shortened in the log
  }
  const bool isNew = std::ranges::none_of(
      known, [&](const Known& other) { return other.kind == &kind && other.hash == one.hash; });
  if (isNew) known.push_back(one);
  return one;
}

void History::Name(std::size_t row, const Known& text) {
  if (!text.hash.empty()) rows[row].subscriptions = {text.hash};
  rows[row].event = text.event;
}

void History::Close(Place delivery, const std::wstring& time, Decision decision,
                    std::wstring detail) {
  HistoryRow& row = rows[delivery->row];
  row.decision = decision;
  if (!row.detail.empty() && !detail.empty()) detail = L"; " + detail;
  row.detail += detail;
  const auto from = MomentOf(row.time);
  const auto to = MomentOf(time);
  // Between lines that a clock set back has written, no length is known.
  if (from && to && *to >= *from) row.milliseconds = *to - *from;
  if (row.subscriptions.empty() && delivery->kind != nullptr && delivery->delay != kUnknownDelay) {
    unnamed.push_back({delivery->row, delivery->kind, delivery->delay});
  }
  open.erase(delivery);
}

void History::CloseExecuted(Place delivery, const std::wstring& time) {
  Facts facts = delivery->facts;
  if (delivery->thread == 0 && !rows[delivery->row].subscriptions.empty()) {
    const auto text =
        std::ranges::find(known, rows[delivery->row].subscriptions.front(), &Known::hash);
    const auto loose = text == known.end() ? looseFacts.end() : looseFacts.find(text->target);
    if (loose != looseFacts.end()) {
      facts = loose->second;
      looseFacts.erase(loose);
    }
  }
  if (facts.refused) {
    Close(delivery, time, Decision::Refused, facts.why);
  } else if (facts.started == 0U) {
    Close(delivery, time, Decision::NotStarted,
          L"no session is at the console, or Windows refused the start");
  } else if (facts.started) {
    rows[delivery->row].startedProcess = *facts.started;
    Close(delivery, time, Decision::Ran, L"process " + std::to_wstring(*facts.started));
  } else if (facts.status) {
    Close(delivery, time, Decision::NotSent, L"the message, status " + *facts.status);
  } else {
    Close(delivery, time, Decision::Sent, L"a message");
  }
}

// Closes a delivery that goes on no more although no line ends it.
void History::CloseSilent(Place delivery) {
  if (delivery->kind == nullptr) {
    Close(delivery, {}, Decision::Sent, kNoLine);
  } else {
    Close(delivery, {}, Decision::Dropped, L"the service ended, and its last line is missing");
  }
}

void History::Know(const std::string& list, const std::wstring& text) {
  for (const Kind* kind : kKinds) {
    if (list == kind->form.list) Learn(*kind, text);
  }
  if (list != kPackageForm.list) return;
  try {
    packages.emplace(Json::JsonObject::Parse(text).GetNamedString(kPackageForm.family),
                     Tessel::Server::Records::SubscriptionHash(text));
  } catch (const Platform::WindowsRuntimeError&) {
    return;  // no delivery is of it
  }
}

std::vector<HistoryRow> History::Finish() {
  for (;;) {
    const Place ended =
        std::ranges::find_if(open, [&](const Open& one) { return stopped.contains(one.process); });
    if (ended == open.end()) break;
    CloseSilent(ended);
  }
  for (const Open& one : open) {
    HistoryRow& row = rows[one.row];
    if (one.kind == nullptr) {
      if (one.thread != 0) row.decision = Decision::Sent;
      row.detail = one.thread != 0 ? kNoLine : kNoThread;
      continue;
    }
    row.detail = one.waited || one.delay == 0
                     ? L"for its turn"
                     : L"for its delay of " + std::to_wstring(one.delay) + L" s";
    if (row.subscriptions.empty()) unnamed.push_back({one.row, one.kind, one.delay});
  }
  for (const Unnamed& one : unnamed) Assign(one);
  return std::move(rows);
}

// Names the subscriptions that a delivery whose lines name none may be of.
void History::Assign(const Unnamed& one) {
  HistoryRow& row = rows[one.row];
  const bool coded = row.event != NameOf(*one.kind);
  std::vector<const Known*> possible;
  for (const Known& text : known) {
    const bool sameDelay = one.delay < 0 ? text.delay < 0 : text.delay == one.delay;
    if (text.kind != one.kind || !sameDelay || (coded && text.event != row.event)) continue;
    possible.push_back(&text);
    row.subscriptions.push_back(text.hash);
  }
  const bool sameEvent = std::ranges::all_of(
      possible, [&](const Known* text) { return text->event == possible.front()->event; });
  if (!possible.empty() && sameEvent) row.event = possible.front()->event;
}

}  // namespace Vx::Host
