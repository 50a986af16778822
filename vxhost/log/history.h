#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hosting/module_log.h"
#include "records/record.h"

namespace Vx::Host {

// One line of a log, as the service writes it or "watch --json" shows it.
struct HistoryLine {
  std::wstring time;         // as it is written
  std::uint32_t thread = 0;  // 0: not known, as in what watch shows
  LogLine line = {};
};

// Reads a line of JSON in UTF-8. Empty if it is not one of a log.
std::optional<HistoryLine> ParseHistoryLine(const std::string& text);

// Milliseconds since 1970 of "2026-11-25T11:31:46.251", with or without a Z. Empty for other texts.
std::optional<std::int64_t> MomentOf(const std::wstring& time);

// A record with words that this version knows.
struct KnownRecord {
  Tessel::Server::Records::Kind kind{};
  Tessel::Server::Records::Decision decision{};
  std::wstring event;  // "power 18", "uninstall FAMILY", "command 9"
  std::wstring why;    // the reason for people, with what Windows returned; may be empty
};

// Empty for a record of a later version.
std::optional<KnownRecord> Understand(const DecisionRecord& record);

// The lines of a host itself between which its module lives. A delivery does not outlive it.
bool StartsModule(const LogLine& line);
bool EndsModule(const LogLine& line);

// One delivery, or one command that changed something or was refused.
struct HistoryRow {
  std::wstring time;  // of its first record
  std::wstring event = {};
  std::wstring subscription = {};  // its hash; empty if there is none
  Tessel::Server::Records::Decision decision{};
  std::wstring detail = {};
  std::uint32_t startedProcess = 0;               // 0 if none was
  std::optional<std::int64_t> milliseconds = {};  // empty while it waits
};

// Puts the records of a log together to one row per delivery.
class History {
 public:
  void Add(const HistoryLine& line);

  // The lines that held a record, and those of them that this version does not understand.
  std::size_t Records() const { return records; }
  std::size_t Unknown() const { return unknown; }

  // Returns the rows in the order of their first records. Call once, at the end.
  std::vector<HistoryRow> Finish();

 private:
  using Delivery = std::pair<std::uint32_t, std::uint64_t>;  // the process, and its number there

  template <typename Of>
  void CutOff(const Of& of);

  std::vector<HistoryRow> rows;
  std::map<Delivery, std::size_t> open;  // the rows of deliveries that wait
  std::size_t records = 0;
  std::size_t unknown = 0;
};

}  // namespace Vx::Host
