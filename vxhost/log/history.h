#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hosting/module_log.h"
#include "records/record.h"

namespace Vx::Hosting::Tool {

// A log line as the service writes it or "watch --json" shows it.
struct HistoryLine {
  std::wstring time;         // as written
  std::uint32_t thread = 0;  // 0 if unknown, as in watch output
  LogLine line = {};
};

// Parses a line of UTF-8 JSON. Empty if it is not a log line.
std::optional<HistoryLine> ParseHistoryLine(const std::string& text);

// Returns "2026-11-25T11:31:46.251", with or without a Z, as milliseconds since 1970, or nothing.
std::optional<std::int64_t> MomentOf(const std::wstring& time);

// A record whose words this version knows.
struct KnownRecord {
  Tessel::Server::Records::Kind kind{};
  Tessel::Server::Records::Decision decision{};
  std::wstring event;  // "power 18", "uninstall FAMILY", "command 9"
  std::wstring why;    // a readable reason with Windows' result; may be empty
};

// Returns nothing for a record from a later version.
std::optional<KnownRecord> Understand(const DecisionRecord& record);

// Return whether the host started or ended the module, which no delivery outlives.
bool StartsModule(const LogLine& line);
bool EndsModule(const LogLine& line);

// One delivery, or one command that changed something or was refused.
struct HistoryRow {
  std::wstring time;  // of its first record
  std::wstring event = {};
  std::wstring subscription = {};  // its hash; empty if none
  Tessel::Server::Records::Decision decision{};
  std::wstring detail = {};
  std::uint32_t startedProcess = 0;               // 0 if none was started
  std::optional<std::int64_t> milliseconds = {};  // empty while it is waiting
};

// Combines a log's records into one row per delivery.
class History {
 public:
  void Add(const HistoryLine& line);

  // The numbers of lines with a record, and of those that this version does not understand.
  std::size_t Records() const { return records; }
  std::size_t Unknown() const { return unknown; }

  // Returns the rows, ordered by their first records. Call once, at the end.
  std::vector<HistoryRow> Finish();

 private:
  using Delivery = std::pair<std::uint32_t, std::uint64_t>;  // process and delivery number

  template <typename Of>
  void CutOff(const Of& of);

  std::vector<HistoryRow> rows;
  std::map<Delivery, std::size_t> open;  // rows of waiting deliveries
  std::size_t records = 0;
  std::size_t unknown = 0;
};

}  // namespace Vx::Hosting::Tool
