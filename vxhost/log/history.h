#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "hosting/loaded_module.h"
#include "records/record.h"

namespace Vx::Hosting::Tool {

// A log line as the service writes it or "watch --json" shows it.
struct HistoryLine {
  std::wstring time;          // as written
  std::uint32_t thread = 0;   // 0 if unknown, as in watch output
  std::wstring service = {};  // the prefix of the log's file names; empty if unknown
  LogLine line = {};
};

// Parses a line of UTF-8 JSON. Returns nothing if it is not a log line.
std::optional<HistoryLine> ParseHistoryLine(const std::string& text);

// Converts "2026-11-25T11:31:46.251" to milliseconds since 1970 in UTC. Returns nothing if invalid.
// The time ends with its zone, "Z" or "+01:00", or is this machine's local time.
std::optional<std::int64_t> MomentOf(const std::wstring& time);

// Formats a moment with its zone, in UTC or in this machine's local time.
enum class Zone { Local, Utc };
std::wstring TimeText(std::int64_t moment, Zone zone = Zone::Local);

// A record whose keywords this version recognizes.
struct KnownRecord {
  Tessel::Server::Records::Kind kind{};
  Tessel::Server::Records::Decision decision{};
  std::wstring event;  // "power 18", "uninstall FAMILY", "command 9"
  std::wstring why;    // the reason as text, with Windows' result; may be empty
};

// Returns nothing for a record from a later version.
std::optional<KnownRecord> Understand(const DecisionRecord& record);

// Return whether the host started or stopped the module. No delivery outlives the module.
bool StartsModule(const LogLine& line);
bool EndsModule(const LogLine& line);

// Returns the code of a power event that the host forwarded to the module, or nothing.
std::optional<std::uint32_t> PowerCodeIn(const LogLine& line);

// Returns a record's program, without its folder, or its app service as FAMILY/NAME.
std::wstring ProgramOf(const std::wstring& target);

// The decision shown for a power event.
inline constexpr wchar_t kReceived[] = L"received";

// One delivery, one command that changed something or was refused, or one event of the host.
struct HistoryRow {
  std::wstring time;                   // of its first record, as written
  std::optional<std::int64_t> moment;  // the same time; empty if it cannot be parsed
  std::wstring event = {};             // "power 18", "command 9", "service"
  std::wstring decision = {};          // readable text
  std::wstring subscription = {};      // its hash; empty if none
  std::wstring target = {};            // the program or app service; empty if unknown
  std::wstring detail = {};
  bool failed = false;
  bool isDelivery = false;                        // of a subscription that can be read
  std::size_t unreadable = 0;                     // deliveries whose subscription cannot be read
  std::uint32_t startedProcess = 0;               // 0 if none was started
  std::optional<std::int64_t> milliseconds = {};  // empty while it is waiting
  std::uint64_t planned = 0;                      // the delay in milliseconds
};

// A period in milliseconds since 1970, including both ends. By default, all time.
struct Period {
  std::int64_t begin = 0;
  std::int64_t end = std::numeric_limits<std::int64_t>::max();
  bool Includes(std::optional<std::int64_t> moment) const {
    return !moment || (*moment >= begin && *moment <= end);
  }
};

// Combines a log's records into one row per delivery.
class History {
 public:
  void Add(const HistoryLine& line);

  // The number of lines with a record, and of those that this version does not understand.
  std::size_t Records() const { return records; }
  std::size_t Unknown() const { return unknown; }

  // Returns the rows of the period, ordered by their first records, with one row for all failures
  // of a subscription that cannot be read. If a delivery's delay has expired at `now`, in
  // milliseconds since 1970, its row notes that its end is not in the log. Call once, at the end.
  std::vector<HistoryRow> Finish(const Period& within, std::int64_t now);

  // Returns copies of the rows added or changed since the last call. Do not call after Finish.
  std::vector<HistoryRow> TakeChanges();

  // Returns the times in the period when a service was not running for at least a second, as far as
  // the log shows. Returns only the last three.
  std::vector<Period> Outages(const Period& within) const;

 private:
  using Delivery = std::pair<std::uint32_t, std::uint64_t>;  // process and delivery number

  // A service's most recent process.
  struct Run {
    std::uint32_t process = 0;
    std::int64_t last = 0;  // the time of its last line
    bool started = false;   // the log contains its start
    bool stopped = false;
  };

  void FollowService(const HistoryLine& line, std::int64_t moment);
  void AddHostLine(const HistoryLine& line, std::optional<std::int64_t> moment);
  // Marks the waiting deliveries of the process as dropped. Records of their end may still follow.
  void CutOff(std::uint32_t process);
  void EndProcess(std::uint32_t process);
  HistoryRow& AddRow(HistoryRow row);

  std::vector<HistoryRow> rows;
  std::set<std::size_t> changes;     // indexes of rows
  std::map<std::wstring, Run> runs;  // by service
  std::vector<Period> outages;
  std::map<Delivery, std::size_t> open;  // row indexes of waiting deliveries
  std::map<std::pair<std::uint32_t, std::uint32_t>, std::wstring>
      complaints;  // the last warning or error, by thread
  std::size_t records = 0;
  std::size_t unknown = 0;
};

}  // namespace Vx::Hosting::Tool
