#include "vxhost/commands/history_command.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "hosting/text.h"
#include "json/json_text.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "servicehost/log_folder.h"
#include "vxhost/log/history.h"
#include "vxhost/log/timeline_page.h"
#include "vxhost/store/store_look.h"
#include "vxhost/subscriptions/stored_subscriptions.h"

namespace Vx::Hosting::Tool {

namespace {

struct Options {
  std::vector<std::string> files;
  bool failed = false;
  std::string since;
  std::string subscription;
  std::string timeline;
};

// Returns the file that an argument names or, for a folder, its logs sorted by age.
std::vector<std::filesystem::path> FilesOf(const std::string& argument) {
  const std::filesystem::path path = FullPath(argument);
  std::error_code error;
  if (!std::filesystem::is_directory(path, error)) return {FullPathOfFile(argument)};
  std::vector<std::filesystem::path> files;
  for (const std::wstring& name : ServiceHost::LogFileNames(path.wstring()))
    files.push_back(path / name);
  if (files.empty()) throw std::runtime_error("there is no NAME-YYYYMMDD-NNNN.log in " + argument);
  return files;
}

// The time from which rows count, for logs in UTC and in local time.
struct Since {
  std::int64_t utc = 0;
  std::int64_t local = 0;

  bool Includes(const std::wstring& time) const {
    const auto moment = MomentOf(time);
    return !moment || *moment >= (time.ends_with(L'Z') ? utc : local);
  }
};

Since SinceOf(const std::string& text) {
  if (text.empty()) return {};
  if (const auto moment = MomentOf(Wide(text))) return {*moment, *moment};
  std::int64_t count = 0;
  const auto [unit, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  const std::string_view rest(unit, static_cast<std::size_t>(text.data() + text.size() - unit));
  const std::int64_t length = rest == "m" ? 60 : rest == "h" ? 3600 : rest == "d" ? 86'400 : 0;
  constexpr std::int64_t kMost = 100'000;
  if (error != std::errc() || length == 0 || count < 0 || count > kMost) {
    throw std::runtime_error("--since needs a time such as 2026-11-25T11:30, or 30m, 2h or 3d");
  }
  const std::int64_t before = count * length * 1000;
  const auto since = [before](std::uint64_t now) { return *MomentOf(DateTimeText(now)) - before; };
  return {since(Platform::CurrentMachine().clock->UtcFileTime()), since(LocalFileTime())};
}

// Returns the stored subscriptions. Empty if the store cannot be read.
std::vector<StoredSubscription> Stored() {
  try {
    return SubscriptionsIn(DocumentOf(LookAtStore()));
  } catch (const std::exception&) {
    return {};
  }
}

// Returns the hash given by --subscription, or the hash of the subscription with that number.
std::wstring HashOf(const std::string& written, const std::vector<StoredSubscription>& stored) {
  constexpr std::size_t kDigits = 8;
  if (written.empty() || written.size() == kDigits) return Wide(written);
  for (const StoredSubscription& one : stored) {
    if (std::to_string(one.number) == written) return one.hash;
  }
  throw std::runtime_error("no stored subscription has the number " + written +
                           "; name a hash of 8 digits instead");
}

std::string Took(const HistoryRow& row) {
  if (!row.milliseconds) return "-";
  return std::to_string(*row.milliseconds / 1000) + "." +
         std::to_string(*row.milliseconds % 1000 + 1000).substr(1) + " s";
}

void Print(const HistoryRow& row, Console& console) {
  const std::string detail = row.detail.empty() ? "" : ": " + Utf8(row.detail);
  console.Line(Cell(Utf8(row.time), 25) + Cell(Utf8(row.event), 13) +
               Cell(row.subscription.empty() ? "--------" : Utf8(row.subscription), 10) +
               Cell(Took(row), 11) + Utf8(NameOf(row.decision).text) + detail);
}

JsonRow AsJson(const HistoryRow& row) {
  std::vector<std::wstring> hashes;
  if (!row.subscription.empty()) hashes.push_back(row.subscription);
  JsonRow result{{L"time", row.time},
                 {L"event", row.event},
                 {L"subscriptions", hashes},
                 {L"decision", NameOf(row.decision).text},
                 {L"failed", IsFailure(row.decision)},
                 {L"detail", row.detail}};
  if (row.startedProcess != 0) result.Add({L"process", row.startedProcess});
  if (row.milliseconds) result.Add({L"milliseconds", *row.milliseconds});
  return result;
}

// Log lines as a play record, which starts with the first line.
class LogRecord {
 public:
  void Add(const HistoryLine& line) {
    const auto moment = MomentOf(line.time);
    if (!moment) return;
    if (line.thread == 0) {
      throw std::runtime_error(
          "--timeline needs the thread of each line, which only the log of a service has");
    }
    if (entries.empty()) {
      first = *moment;
      begin = line.time;
    }
    // Different processes may use the same thread number.
    const auto number = static_cast<std::uint32_t>(threads.size() + 1);
    const auto thread = threads.try_emplace({line.line.process, line.thread}, number).first->second;
    entries.push_back({.at = std::chrono::milliseconds(std::max<std::int64_t>(*moment - first, 0)),
                       .what = Happening::Log,
                       .thread = thread,
                       .log = line.line});
  }

  void Draw(const std::string& file, const std::vector<StoredSubscription>& stored) const {
    std::vector<std::wstring> texts;
    for (const StoredSubscription& one : stored) {
      if (one.text) texts.push_back(*one.text);
    }
    const PageHead head{.title = L"The service from " + begin, .verdict = {}};
    WriteTextFile(FullPath(file), TimelinePage(head, {}, entries, texts));
  }

 private:
  std::int64_t first = 0;
  std::wstring begin;
  std::map<std::pair<std::uint32_t, std::uint32_t>, std::uint32_t> threads;
  std::vector<RecordEntry> entries;
};

// Passes each log line to `take`. Returns how many lines were not log lines.
std::size_t ReadFile(const std::filesystem::path& path,
                     const std::function<void(const HistoryLine&)>& take) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + Utf8(path.wstring()));
  // A log line starts with a brace. A byte beyond ASCII is a mark: PowerShell saves as UTF-16.
  std::istringstream decoded;
  const bool marked = file.peek() > 0x7F;
  if (marked) decoded.str(Utf8(ReadTextFile(path.wstring())));
  std::istream& lines = marked ? static_cast<std::istream&>(decoded) : file;
  std::size_t others = 0;
  for (std::string text; std::getline(lines, text);) {
    if (const auto line = ParseHistoryLine(text)) {
      take(*line);
    } else if (text.find_first_not_of(" \t\r") != std::string::npos) {
      ++others;
    }
  }
  return others;
}

constexpr char kNoRecords[] =
    "(no line has a record of a decision. Nothing was decided, or an earlier version wrote the "
    "log, or "
    "a module with another logging library, or it is output of \"watch\")";

int RunHistory(const Options& options, Console& console) {
  const Since since = SinceOf(options.since);
  const auto stored = Stored();
  const std::wstring hash = HashOf(options.subscription, stored);
  History history;
  std::size_t others = 0;
  LogRecord record;
  const auto take = [&](const HistoryLine& line) {
    history.Add(line);
    if (!options.timeline.empty() && since.Includes(line.time)) record.Add(line);
  };
  for (const std::string& argument : options.files) {
    for (const auto& path : FilesOf(argument)) others += ReadFile(path, take);
  }
  if (!options.timeline.empty()) record.Draw(options.timeline, stored);
  for (const HistoryRow& row : history.Finish()) {
    if (options.failed && !IsFailure(row.decision)) continue;
    if (!since.Includes(row.time)) continue;
    if (!hash.empty() && row.subscription != hash) continue;
    if (console.WritesJson()) {
      console.JsonResult(AsJson(row));
    } else {
      Print(row, console);
    }
  }
  if (history.Records() == 0) console.Note(kNoRecords);
  if (history.Unknown() != 0) {
    console.Note("(" + std::to_string(history.Unknown()) + " records are of a later version)");
  }
  if (others != 0) console.Note("(" + std::to_string(others) + " lines are not lines of a log)");
  return kDone;
}

constexpr char kFooter[] =
    "Reads the records in what a service writes: files, or a folder of logs.\n"
    "  vxhost history C:\\Logs --failed --since 2h\n"
    "  vxhost history lines.json --subscription 2 --json";

}  // namespace

void AddHistoryCommand(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  CLI::App& history =
      line.Add("history", "show what became of each delivery, from the log of a service", kFooter,
               [options](Console& console) { return RunHistory(*options, console); });
  history.add_option("file", options->files, "log files, or their folder")->required();
  history.add_flag("--failed", options->failed, "only what was asked for and not done");
  history.add_option("--since", options->since,
                     "from this time, as the log writes it, or for 30m, 2h or 3d");
  history.add_option("--subscription", options->subscription,
                     "only of this one: its number in the store, or its hash");
  history.add_option("--timeline", options->timeline, "draw the log as a web page, into this file");
  line.OfferJson(history);
  line.UseStore(history);
}

}  // namespace Vx::Hosting::Tool
