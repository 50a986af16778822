#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "events/subscription_delivery.h"

namespace Vx::Host {

// One line of a log, as the service writes it or "watch --json" shows it.
struct HistoryLine {
  std::wstring time;          // as it is written
  std::uint32_t process = 0;  // 0: not known
  std::uint32_t thread = 0;   // 0: not known, as in what watch shows
  std::wstring caller = {};
  std::wstring message = {};
  std::wstring level = {};  // empty: not known
};

// Reads a line of JSON in UTF-8. Empty if it is not one of a log.
std::optional<HistoryLine> ParseHistoryLine(const std::string& text);

// Milliseconds since 1970 of "2026-11-25T11:31:46.251", with or without a Z. Empty for other texts.
std::optional<std::int64_t> MomentOf(const std::wstring& time);

enum class Decision {
  Ran,
  Sent,
  Raised,  // a trigger
  Waiting,
  Accepted,  // a subscription, as the next two
  Refused,   // also a program
  TakenBack,
  NotStarted,  // although it was trusted
  NotSent,
  NotRaised,
  Dropped,
  Failed,
};

const wchar_t* NameOf(Decision decision);

// Whether something that a client asked for was not done.
bool IsFailure(Decision decision);

// One delivery, or one change of the stored subscriptions.
struct HistoryRow {
  std::wstring time;  // of its first line
  std::wstring event =
      {};  // "power 18", "uninstall FAMILY"; the kind alone where no line has the code
  std::vector<std::wstring> subscriptions =
      {};  // hashes: of the one that it is, or of those possible
  Decision decision = Decision::Waiting;
  std::wstring detail = {};
  std::uint32_t startedProcess = 0;               // for Ran
  std::optional<std::int64_t> milliseconds = {};  // from its first line to its last
};

// Puts the lines of a log together to one row per delivery. Lines of one thread belong together.
// Where the thread is not known, the text of the subscription and its delay decide, and the reason
// of a refusal is not known.
class History {
 public:
  void Add(const HistoryLine& line);

  // Makes a stored subscription known, so that deliveries whose lines do not name theirs can be
  // assigned by kind and delay, or by family. `list` is the key of its list.
  void Know(const std::string& list, const std::wstring& text);

  // Returns the rows in the order of their first lines. Call once, at the end.
  std::vector<HistoryRow> Finish();

 private:
  using Kind = Tessel::Server::Services::Orvane::DeliveryKind;

  // What the lines about a program or a message say.
  struct Facts {
    bool refused = false;
    bool locked = true;
    std::wstring why;
    std::optional<std::uint32_t> started;  // the process, 0 if Windows refused
    std::optional<std::wstring> status;    // of a message that did not arrive
  };

  // A delivery whose last line has not come.
  struct Open {
    std::size_t row = 0;
    const Kind* kind = nullptr;  // null for a package event
    std::uint32_t process = 0;
    std::uint32_t thread = 0;
    int delay = 0;            // seconds
    bool unreadable = false;  // the line that begins it again is still to come
    bool waited = false;
    bool standby = false;
    Facts facts;
  };
  using Place = std::vector<Open>::iterator;

  // A text that some line shows whole.
  struct Known {
    const Kind* kind = nullptr;
    std::wstring hash;
    int delay = 0;
    std::wstring event;
    std::wstring target = {};  // the path of its program, or family and name of its app service
  };
  struct Unnamed {
    std::size_t row = 0;
    const Kind* kind = nullptr;
    int delay = 0;
  };

  bool TakeListChange(const HistoryLine& line);
  bool TakeHostLine(const HistoryLine& line);
  bool TakePackageLine(const HistoryLine& line);
  bool TakeDelivery(const HistoryLine& line, const Kind& kind);
  bool TakeEnding(const HistoryLine& line, const Kind& kind);
  void TakeUnstarted(const HistoryLine& line, const Kind& kind, const std::wstring& text,
                     Decision decision, const std::wstring& why);
  bool TakeLaunch(const HistoryLine& line);
  void TakeTrust(const HistoryLine& line);

  Place Begin(const HistoryLine& line, const Kind* kind, int delay);
  template <typename Fits>
  Place Find(const HistoryLine& line, const Fits& fits);
  enum class Stage { Waiting, Waited };
  Place Of(const HistoryLine& line, const Kind& kind, const Known& text,
           Stage stage = Stage::Waited);
  Facts* FactsOf(const HistoryLine& line, const std::wstring& path);
  Known Learn(const Kind& kind, const std::wstring& text);
  void Close(Place delivery, const std::wstring& time, Decision decision, std::wstring detail);
  void CloseExecuted(Place delivery, const std::wstring& time);
  void CloseSilent(Place delivery);
  void Assign(const Unnamed& one);
  void Name(std::size_t row, const Known& known);

  std::vector<HistoryRow> rows;
  std::vector<Open> open;  // the oldest first
  std::vector<Known> known;
  std::vector<Unnamed> unnamed;                        // rows whose lines name no subscription
  std::multimap<std::wstring, std::wstring> packages;  // hashes of stored ones, by family
  std::map<std::wstring, Facts> looseFacts;            // by path, of lines without a thread
  std::wstring looseLaunch;                            // the path of the last launch of these
  std::set<std::uint32_t> stopped;                     // processes whose module has ended
  std::wstring powerEvent = L"power";                  // the last that the host reported
};

}  // namespace Vx::Host
