#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Vx::Tessel::Server::Records {

enum class Kind : std::uint8_t { Command, Completion, Power, Platform, Uninstall };

enum class Decision : std::uint8_t {
  None,  // nothing to record
  Done,
  Stored,
  Removed,
  Waiting,
  Ran,
  Sent,
  Raised,
  Refused,
  NotStarted,
  NotSent,
  NotRaised,
  Dropped,
  Failed,
};

enum class Reason : std::uint8_t {
  None,
  // For a command.
  UnknownCommand,
  NoSessionApi,
  NullArgument,
  NotJson,
  BadMember,
  AlreadyStored,
  NotStored,
  StoreRefused,
  NotWatched,
  UnknownEvent,
  UnknownAction,
  NotInstalled,
  NoConsoleUser,
  EarlierLines,
  // For a stored subscription or a delivery.
  Unreadable,
  HasRun,
  Late,
  Standby,
  ImpossibleDelay,
  TooManyOfOne,
  TooManyOfAll,
  ServiceEnded,
  PackageLeft,
  NotLate,
  NoThread,
  Exception,
  // For a program.
  NotOnDrive,
  ControlCharacter,
  Variable,
  OtherMachine,
  Place,
  NotLocked,
  NoSignature,
  NoPinnedKeys,
  NotTrusted,
  NotPinned,
  NoSession,
  Windows,
  // For a message.
  NotTaken,
};

// A value's stable identifier, and its display text.
struct Name {
  const wchar_t* word;
  const wchar_t* text;
};
template <typename Value>
const Name& NameOf(Value value);

// Returns the value with this identifier, or nothing if this version does not define one.
template <typename Value>
std::optional<Value> FromWord(std::wstring_view word);

// Returns a short name for a subscription, for log lines and tables: 8 hexadecimal digits that
// depend only on its text, ignoring white space between tokens. It helps readers tell subscriptions
// apart. It is not a security measure. A text that is not a JSON object is hashed unchanged.
std::wstring SubscriptionHash(std::wstring_view request);

// Returns whether the decision means that something a client requested was not done.
constexpr bool IsFailure(Decision decision) {
  return decision >= Decision::Refused;
}

// Fits in a register, so that a caller may declare a function that returns it as void.
struct Outcome {
  Decision decision = Decision::None;
  Reason reason = Reason::None;
  std::uint32_t number = 0;  // the process ID if Ran, otherwise the error code
};
static_assert(sizeof(Outcome) == sizeof(void*));

// The C++ form of VxLogRecord.
struct Record {
  Kind kind = Kind::Command;
  Outcome outcome = {};
  std::wstring subscription = {};
  std::wstring target = {};
  std::wstring package = {};
  const wchar_t* client = nullptr;
  std::uint32_t number = 0;
  std::uint64_t delivery = 0;
  std::uint64_t milliseconds = 0;
};

// A record's target, package and client are truncated to this many characters.
inline constexpr std::size_t kLongestClientText = 512;

// Writes a record and its log line, in which client text cannot forge other lines. Thread-safe.
void Write(const Record& record) noexcept;

// The records of one delivery, from its event to its end. Use from one thread at a time.
class Delivery {
 public:
  // Assigns this process's next delivery number. `subject` must have a kind, event, subscription
  // and target.
  explicit Delivery(Record&& subject) noexcept;
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;
  // If Ends was not called, records the delivery as failed, because an exception ended it.
  ~Delivery();

  // Writes a record that the delivery will wait for at most `delay`.
  void Waits(std::chrono::milliseconds delay) noexcept;

  // Writes a record of the outcome. Later calls have no effect.
  void Ends(const Outcome& outcome) noexcept;

 private:
  Record record;
  std::uint64_t start;
};

// Returns the outcome of a delivery that threw an exception with this code.
constexpr Outcome FailedWith(std::int32_t code, Reason reason = Reason::Exception) {
  return {Decision::Failed, reason, static_cast<std::uint32_t>(code)};
}

}  // namespace Vx::Tessel::Server::Records
