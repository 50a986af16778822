#include "records/record.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cwchar>
#include <iterator>
#include <utility>

#include "host/logging.h"
#include "json/json_object.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/shown_text.h"
#include "platform/windows_runtime_error.h"

namespace Vx::Tessel::Server::Records {

namespace {

constexpr wchar_t kListChange[] = L"OrvaneService - subscription %ls: %ls";
constexpr wchar_t kCommand[] = L"OrvaneService - command %u: %ls";
constexpr wchar_t kDelivery[] = L"OrvaneService - %ls %u to subscription %ls: %ls";
constexpr wchar_t kReason[] = L", %ls";
constexpr wchar_t kProcess[] = L", process %u";
constexpr wchar_t kStatus[] = L" (status 0x%08x)";
constexpr wchar_t kFunction[] = L" (function id %u)";

template <typename Value>
struct Row {
  Value value;
  Name name;
};

// The rows of each enumeration, in its order.
template <typename Value>
constexpr Row<Value> kRows[1] = {};

template <>
constexpr Row<Kind> kRows<Kind>[] = {
    {Kind::Command, {L"command", L"command"}},
    {Kind::Completion, {L"completion", L"completion"}},
    {Kind::Power, {L"power", L"power"}},
    {Kind::Platform, {L"platform", L"platform"}},
    {Kind::Uninstall, {L"uninstall", L"uninstall"}},
};

template <>
constexpr Row<Decision> kRows<Decision>[] = {
    {Decision::None, {L"", L""}},
    {Decision::Done, {L"done", L"done"}},
    {Decision::Stored, {L"stored", L"accepted"}},
    {Decision::Removed, {L"removed", L"taken back"}},
    {Decision::Waiting, {L"waiting", L"waiting"}},
    {Decision::Ran, {L"ran", L"ran"}},
    {Decision::Sent, {L"sent", L"sent"}},
    {Decision::Raised, {L"raised", L"raised"}},
    {Decision::Refused, {L"refused", L"refused"}},
    {Decision::NotStarted, {L"not_started", L"not started"}},
    {Decision::NotSent, {L"not_sent", L"not sent"}},
    {Decision::NotRaised, {L"not_raised", L"not raised"}},
    {Decision::Dropped, {L"dropped", L"dropped"}},
    {Decision::Failed, {L"failed", L"failed"}},
};

template <>
constexpr Row<Reason> kRows<Reason>[] = {
    {Reason::None, {L"", L""}},
    {Reason::UnknownCommand, {L"unknown_command", L"the module has no such command"}},
    {Reason::NoSessionApi, {L"no_session_api", L"this Windows has no interactive users"}},
    {Reason::NullArgument, {L"null_argument", L"the host passed a null argument"}},
    {Reason::NotJson, {L"not_json", L"the request is not valid JSON"}},
    {Reason::BadMember, {L"bad_member", L"a member of the request is missing or wrong"}},
    {Reason::AlreadyStored, {L"already_stored", L"it is already stored, apart from its delay"}},
    {Reason::NotStored, {L"not_stored", L"no stored subscription has exactly this text"}},
    {Reason::StoreRefused, {L"store_refused", L"the store did not accept the change"}},
    {Reason::NotWatched, {L"not_watched", L"its package is not watched before the next logon"}},
    {Reason::UnknownEvent, {L"unknown_event", L"the module has no such event"}},
    {Reason::UnknownAction, {L"unknown_action", L"the module has no such action"}},
    {Reason::NotInstalled, {L"not_installed", L"no package of the family is installed"}},
    {Reason::NoConsoleUser, {L"no_console_user", L"no user is at the console"}},
    {Reason::EarlierLines, {L"earlier_lines", L"the preceding lines state the reason"}},
    {Reason::Unreadable, {L"unreadable", L"its text cannot be read"}},
    {Reason::HasRun, {L"has_run", L"its command has run"}},
    {Reason::Late, {L"late", L"too late"}},
    {Reason::Standby, {L"standby", L"Modern Standby ended its wait too early"}},
    {Reason::ImpossibleDelay, {L"impossible_delay", L"no delivery can wait that long"}},
    {Reason::TooManyOfOne, {L"too_many_of_one", L"too many deliveries of it are already waiting"}},
    {Reason::TooManyOfAll, {L"too_many_of_all", L"too many deliveries exist already"}},
    {Reason::ServiceEnded, {L"service_ended", L"the service ended while it waited"}},
    {Reason::PackageLeft, {L"package_left", L"a user still has the package"}},
    {Reason::NotLate, {L"not_late", L"a message is not sent late"}},
    {Reason::NoThread, {L"no_thread", L"no thread could be started"}},
    {Reason::Exception, {L"exception", L"an exception ended it"}},
    {Reason::NotOnDrive, {L"not_on_drive", L"it is not a full path on a drive"}},
    {Reason::ControlCharacter, {L"control_character", L"it contains a control character"}},
    {Reason::Variable, {L"variable", L"it contains a variable"}},
    {Reason::OtherMachine, {L"other_machine", L"it is on no drive of this machine"}},
    {Reason::Place, {L"place", L"it is outside the protected places"}},
    {Reason::NotLocked, {L"not_locked", L"it is missing or cannot be locked against writing"}},
    {Reason::NoSignature, {L"no_signature", L"it has no signature that Windows can verify"}},
    {Reason::NoPinnedKeys, {L"no_pinned_keys", L"no keys are pinned in this build"}},
    {Reason::NotTrusted, {L"not_trusted", L"Windows does not trust its signature"}},
    {Reason::NotPinned, {L"not_pinned", L"it was not signed with a pinned key"}},
    {Reason::NoSession, {L"no_session", L"no session is at the console"}},
    {Reason::Windows, {L"windows", L"Windows refused"}},
    {Reason::NotTaken, {L"not_taken", L"the app did not accept the message"}},
};

template <typename Value>
consteval bool RowsMatchValues(Value last) {
  std::size_t row = 0;
  return std::size(kRows<Value>) == static_cast<std::size_t>(last) + 1 &&
         std::ranges::all_of(kRows<Value>, [&](const Row<Value>& one) {
           return static_cast<std::size_t>(one.value) == row++;
         });
}
static_assert(RowsMatchValues(Kind::Uninstall));
static_assert(RowsMatchValues(Decision::Failed));
static_assert(RowsMatchValues(Reason::NotTaken));

// The log line of a record. The tables above bound the length of its strings.
class Line {
 public:
  template <typename... Args>
  void Add(const wchar_t* format, Args... args) {
    const int written = std::swprintf(text + length, std::size(text) - length, format, args...);
    if (written > 0) length += static_cast<std::size_t>(written);
  }
  const wchar_t* Text() const { return text; }

 private:
  wchar_t text[512] = {};
  std::size_t length = 0;
};

// A client's text in a record, shortened and made safe for a log.
class ClientText {
 public:
  explicit ClientText(const wchar_t* text) noexcept {
    for (wchar_t* end = shown; *text != L'\0' && end != shown + kLongestClientText; ++text) {
      *end++ = Platform::ShownAs(*text);
    }
  }
  const wchar_t* Text() const { return shown; }

 private:
  wchar_t shown[kLongestClientText + 1] = {};
};

// FNV-1a over the UTF-16 units, low byte first.
std::uint32_t HashOf(std::wstring_view text) {
  std::uint32_t hash = 0x811C9DC5;
  for (const wchar_t c : text) {
    const auto unit = static_cast<std::uint32_t>(c);
    for (const std::uint32_t byte : {unit & 0xFF, unit >> 8 & 0xFF}) {
      hash = (hash ^ byte) * 0x01000193;
    }
  }
  return hash;
}

std::wstring CompactForm(std::wstring_view request) {
  try {
    return Json::JsonObject::Parse(request).Stringify();
  } catch (const Platform::WindowsRuntimeError&) {
    return std::wstring(request);
  }
}

constinit std::atomic<std::uint64_t> lastNumber{0};

std::uint64_t Now() noexcept {
  return Platform::CurrentMachine().clock->TickCount();
}

}  // namespace

template <typename Value>
const Name& NameOf(Value value) {
  const auto& rows = kRows<Value>;
  return rows[static_cast<std::size_t>(value)].name;
}
template const Name& NameOf(Kind);
template const Name& NameOf(Decision);
template const Name& NameOf(Reason);

template <typename Value>
std::optional<Value> FromWord(std::wstring_view word) {
  for (const Row<Value>& row : kRows<Value>) {
    if (row.name.word == word) return row.value;
  }
  return std::nullopt;
}
template std::optional<Kind> FromWord(std::wstring_view);
template std::optional<Decision> FromWord(std::wstring_view);
template std::optional<Reason> FromWord(std::wstring_view);

std::wstring SubscriptionHash(std::wstring_view request) {
  wchar_t digits[9];
  static_cast<void>(
      std::swprintf(digits, std::size(digits), L"%08x", HashOf(CompactForm(request))));
  return digits;
}

void Write(const Record& record) noexcept {
  const Outcome& outcome = record.outcome;
  // A failed command or completion has already been logged.
  const bool lost = record.kind >= Kind::Power && outcome.decision >= Decision::Dropped;
  const auto level = lost ? Logging::LogLevel::Warning : Logging::LogLevel::Info;
  if (!Logging::IsHeard(level)) return;
  const Name& decision = NameOf(outcome.decision);
  const Name& reason = NameOf(outcome.reason);
  const bool ofList = !record.subscription.empty() && record.kind <= Kind::Completion;
  Line line;
  if (ofList) {
    line.Add(kListChange, record.subscription.c_str(), decision.text);
  } else if (record.kind == Kind::Command) {
    line.Add(kCommand, record.number, decision.text);
  } else {
    line.Add(kDelivery, NameOf(record.kind).text, record.number, record.subscription.c_str(),
             decision.text);
  }
  if (ofList && record.kind == Kind::Command) line.Add(kFunction, record.number);
  if (outcome.reason != Reason::None) line.Add(kReason, reason.text);
  const bool ran = outcome.decision == Decision::Ran;
  if (outcome.number != 0) line.Add(ran ? kProcess : kStatus, outcome.number);
  const ClientText target(record.target.c_str());
  const ClientText package(record.package.c_str());
  const ClientText client(record.client == nullptr ? L"" : record.client);
  Logging::WriteRecord({.size = sizeof(VxLogRecord),
                        .kind = NameOf(record.kind).word,
                        .decision = decision.word,
                        .reason = reason.word,
                        .subscription = record.subscription.c_str(),
                        .target = target.Text(),
                        .package = package.Text(),
                        .client = client.Text(),
                        .number = record.number,
                        .status = ran ? 0 : outcome.number,
                        .process = ran ? outcome.number : 0,
                        .delivery = record.delivery,
                        .milliseconds = record.milliseconds},
                       level, line.Text());
}

Delivery::Delivery(Record&& subject) noexcept : record(std::move(subject)), start(Now()) {
  record.delivery = ++lastNumber;
}

Delivery::~Delivery() {
  Ends(FailedWith(0));
}

void Delivery::Waits(std::chrono::milliseconds delay) noexcept {
  record.outcome.decision = Decision::Waiting;
  record.milliseconds = static_cast<std::uint64_t>(delay.count());
  Write(record);
}

void Delivery::Ends(const Outcome& outcome) noexcept {
  if (record.outcome.decision > Decision::Waiting) return;
  record.outcome = outcome;
  record.milliseconds = Now() - start;
  Write(record);
}

}  // namespace Vx::Tessel::Server::Records
