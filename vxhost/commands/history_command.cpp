#include "vxhost/commands/commands.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <exception>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <windows.h>

#include "hosting/text.h"
#include "json/json_text.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "records/record.h"
#include "servicehost/guarded_folder.h"
#include "servicehost/log_folder.h"
#include "vxhost/log/timeline_page.h"
#include "vxhost/service/log_follower.h"
#include "vxhost/store/store.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Records;
using namespace std::chrono_literals;

struct Options {
  std::vector<std::string> files;
  bool failed = false;
  bool follow = false;
  bool utc = false;
  std::string since;
  std::string until;
  std::string subscription;
  std::string program;
  std::string timeline;
};

// Returns the time that --since or --until specifies.
std::int64_t MomentNamed(const std::string& text, std::int64_t now) {
  constexpr std::int64_t kHalfDay = 43'200'000;
  const auto dayOf = [](std::int64_t moment) { return TimeText(moment).substr(0, 10); };
  const std::wstring today = dayOf(now);
  if (text == "today") return *MomentOf(today);
  if (text == "yesterday") return *MomentOf(dayOf(*MomentOf(today) - kHalfDay));
  if (const auto moment = MomentOf(Wide(text))) return *moment;
  if (text.find(':') != text.npos && text.find_first_not_of("0123456789:.") == text.npos) {
    return *MomentOf(today + L"T" + Wide(text));
  }
  std::int64_t count = 0;
  const auto [unit, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  const std::string_view rest(unit, static_cast<std::size_t>(text.data() + text.size() - unit));
  const std::int64_t length = rest == "m" ? 60 : rest == "h" ? 3600 : rest == "d" ? 86'400 : 0;
  constexpr std::int64_t kMost = 100'000;
  if (error != std::errc() || length == 0 || count < 0 || count > kMost) {
    throw std::runtime_error("\"" + text +
                             "\" is not a time such as 2026-11-25T11:30, 08:00, yesterday or 2h");
  }
  return now - count * length * 1000;
}

// Returns the stored subscriptions, or none if the store cannot be read.
std::vector<StoredSubscription> Stored() {
  try {
    return SubscriptionsOf(LookAtStore());
  } catch (const std::exception&) {
    return {};
  }
}

// Returns the hash given by --subscription or, if it is a number, that of the stored subscription.
std::wstring HashOf(const std::string& written, const std::vector<StoredSubscription>& stored) {
  constexpr std::size_t kDigits = 8;
  if (written.empty() || written.size() == kDigits) return Wide(written);
  for (const StoredSubscription& one : stored) {
    if (std::to_string(one.number) == written) return one.hash;
  }
  throw std::runtime_error("no stored subscription has the number " + written +
                           "; name a hash of 8 digits instead");
}

// Returns the name of the service that wrote a log file.
std::wstring ServiceOf(const std::filesystem::path& file) {
  const std::wstring name = file.filename().wstring();
  return name.substr(0, name.size() - ServiceHost::LogAge(name).size());
}

std::string Took(const HistoryRow& row) {
  if (!row.milliseconds) return "-";
  return std::to_string(*row.milliseconds / 1000) + "." +
         std::to_string(*row.milliseconds % 1000 + 1000).substr(1) + " s";
}

std::string LineOf(const HistoryRow& row, Zone zone) {
  const std::wstring time = row.moment ? TimeText(*row.moment, zone) : row.time;
  const std::string detail = row.detail.empty() ? "" : ": " + Utf8(row.detail);
  const std::string program = row.target.empty() ? "" : " (" + Utf8(ProgramOf(row.target)) + ")";
  return Cell(Utf8(time), zone == Zone::Utc ? 25 : 30) + Cell(Utf8(row.event), 13) +
         Cell(row.subscription.empty() ? "--------" : Utf8(row.subscription), 10) +
         Cell(Took(row), 11) + Utf8(row.decision) + detail + program;
}

JsonRow AsJson(const HistoryRow& row) {
  std::vector<std::wstring> hashes;
  if (!row.subscription.empty()) hashes.push_back(row.subscription);
  JsonRow result{{L"time", row.time},     {L"event", row.event},       {L"subscriptions", hashes},
                 {L"target", row.target}, {L"decision", row.decision}, {L"failed", row.failed},
                 {L"detail", row.detail}};
  if (row.startedProcess != 0) result.Add({L"process", row.startedProcess});
  if (row.milliseconds) result.Add({L"milliseconds", *row.milliseconds});
  return result;
}

// Collects log lines as a play record and draws its timeline.
class LogRecord {
 public:
  void Add(const HistoryLine& line) {
    const auto moment = MomentOf(line.time);
    if (!moment) return;
    if (line.thread == 0) {
      throw std::runtime_error(
          "--timeline needs the thread of each line, which only the log of a service has");
    }
    // Different processes may have threads with the same ID.
    const auto number = static_cast<std::uint32_t>(threads.size() + 1);
    const auto thread = threads.try_emplace({line.line.process, line.thread}, number).first->second;
    entries.push_back({.at = std::chrono::milliseconds(*moment),
                       .what = Happening::Log,
                       .thread = thread,
                       .log = line.line});
  }

  // Draws all lines, or those of the log's last day. Above kMost entries, a browser is slow to show
  // the page, so only decisions and the host's lines are kept, and of these only the last kMost.
  enum class Extent { All, LastDay };
  void Draw(const std::string& file, const std::vector<StoredSubscription>& stored, Extent extent) {
    constexpr std::size_t kMost = 4000;
    PageHead head{.title = L"The service", .verdict = {}};
    std::erase_if(entries, [&, end = entries.empty() ? 0ms : entries.back().at](const auto& one) {
      return extent == Extent::LastDay && one.at < end - 24h;
    });
    if (entries.size() > kMost) {
      std::erase_if(entries, [](const RecordEntry& one) {
        return !one.log.record && one.log.provider != kHostProvider;
      });
    }
    if (entries.size() > kMost) entries.erase(entries.begin(), entries.end() - kMost);
    if (!entries.empty()) {
      const auto begin = entries.front().at;
      const std::wstring time = TimeText(begin.count());
      head.title += L" from " + time;
      head.begin = MomentOf(time.substr(0, time.size() - 6) + L"Z");
      for (RecordEntry& one : entries) one.at = std::max(one.at - begin, 0ms);
    }
    std::vector<std::wstring> texts;
    for (const StoredSubscription& one : stored) {
      if (one.text) texts.push_back(*one.text);
    }
    WriteTextFile(FullPath(file), TimelinePage(head, {}, entries, texts));
  }

 private:
  std::map<std::pair<std::uint32_t, std::uint32_t>, std::uint32_t> threads;
  std::vector<RecordEntry> entries;
};

constexpr char kNoRecords[] =
    "(no line has a record of a decision. Nothing was decided, or an earlier version wrote the "
    "log, or a module with another logging library, or it is output of \"watch\")";

std::wstring Lower(std::wstring text) {
  CharLowerBuffW(text.data(), static_cast<DWORD>(text.size()));
  return text;
}

// Returns why no row that matches `isOf` is a delivery. If one is, returns only when the service
// did not run, which may be why a later event has none.
std::string WhyNothing(const std::vector<HistoryRow>& rows, const auto& isOf,
                       const std::vector<Period>& outages, Zone zone) {
  const HistoryRow* event = nullptr;   // the last power event, or a delivery for one
  const HistoryRow* stored = nullptr;  // the first row that stored a subscription
  std::size_t others = 0;              // deliveries to other subscriptions
  bool any = false;
  const auto at = [&](std::optional<std::int64_t> moment) {
    return Utf8(TimeText(moment.value_or(0), zone));
  };
  std::string down;
  for (const Period& one : outages) {
    down += down.empty() ? "the service did not run from " : ", and from ";
    down += at(one.begin) + " to " + at(one.end);
  }
  for (const HistoryRow& row : rows) {
    const bool delivery = row.isDelivery || row.unreadable != 0;
    const bool proves = delivery && row.event.starts_with(NameOf(Kind::Power).text) &&
                        (event == nullptr || event->event != row.event);
    if (row.decision == kReceived || proves) event = &row;
    if (!isOf(row)) {
      others += delivery ? 1 : 0;
      continue;
    }
    if (row.isDelivery) return down.empty() ? down : "(" + down + ")";
    any = true;
    if (row.decision == NameOf(Decision::Stored).text && stored == nullptr) stored = &row;
  }
  if (!any && others != 0) {
    return "The log does not mention it. Deliveries to other subscriptions: " +
           std::to_string(others) + ". What is stored: vxhost subscriptions";
  }
  std::string why = others == 0 ? "Nothing was delivered: " : "Nothing was delivered to it: ";
  if (!down.empty()) why += down + "; ";
  if (event == nullptr) return why + "no power event came";
  const std::string last = "the last event, " + Utf8(event->event) + " at " + at(event->moment);
  if (stored != nullptr && stored->moment > event->moment) {
    return why + "the subscription was stored later, at " + at(stored->moment) + ", than " + last;
  }
  return why + (others == 0 ? "nothing" : "it has not") + " waited for " + last +
         ": vxhost explain " + Utf8(event->event);
}

// The log of one service, read as it grows.
struct FollowedService {
  std::wstring name;
  LogFollower log;

  void Read(const std::function<void(const HistoryLine&)>& take) {
    while (const auto text = log.Next()) {
      auto line = ParseHistoryLine(*text);
      if (!line) continue;
      line->service = name;
      take(*line);
    }
  }
};

void FollowFolder(const std::filesystem::path& folder, std::vector<FollowedService>& followed) {
  std::set<std::wstring> names;
  for (const auto& file : LogFilesIn(folder)) names.insert(ServiceOf(file));
  for (const std::wstring& name : names) {
    followed.push_back({name, {folder.wstring(), {name}, LogFollower::From::Start}});
  }
}

int RunHistory(const Options& options, const ModuleOptions&, Console& console) {
  const Zone zone = options.utc ? Zone::Utc : Zone::Local;
  const std::int64_t now =
      *MomentOf(DateTimeText(Platform::CurrentMachine().clock->UtcFileTime()) + L"Z");
  Period period;
  if (!options.since.empty()) period.begin = MomentNamed(options.since, now);
  if (!options.until.empty()) period.end = MomentNamed(options.until, now);
  const auto stored = Stored();
  const std::wstring hash = HashOf(options.subscription, stored);
  const std::wstring program = Lower(Wide(options.program));
  const auto isOf = [&](const HistoryRow& row) {
    return (hash.empty() || row.subscription == hash) &&
           Lower(row.target).find(program) != std::wstring::npos;
  };
  History history;
  std::size_t others = 0;
  LogRecord record;
  const auto take = [&](const HistoryLine& line) {
    history.Add(line);
    if (!options.timeline.empty() && period.Includes(MomentOf(line.time))) record.Add(line);
  };
  auto arguments = options.files;
  if (arguments.empty()) arguments.emplace_back();
  std::vector<FollowedService> followed;
  for (const std::string& argument : arguments) {
    const std::filesystem::path path = LogFolderOf(argument);
    if (options.follow) {
      FollowFolder(path, followed);
      continue;
    }
    std::error_code error;
    const bool isFile = !argument.empty() && std::filesystem::is_regular_file(path, error);
    for (const auto& file : isFile ? std::vector{path} : LogFilesIn(path)) {
      others += ReadLog(file, take);
    }
  }
  for (FollowedService& service : followed) service.Read(take);
  if (!options.timeline.empty()) {
    const bool all = !options.since.empty() || !options.until.empty();
    record.Draw(options.timeline, stored,
                all ? LogRecord::Extent::All : LogRecord::Extent::LastDay);
  }
  const auto show = [&](const HistoryRow& row) {
    if ((options.failed && !row.failed) || !isOf(row)) return;
    console.Show(AsJson(row), {LineOf(row, zone)});
  };
  if (options.follow) history.TakeChanges();  // the rows below include them
  const auto rows =
      options.follow ? History(history).Finish(period, now) : history.Finish(period, now);
  std::ranges::for_each(rows, show);
  if (history.Records() == 0 && rows.empty()) console.Note(kNoRecords);
  if (history.Unknown() != 0) {
    console.Note("(" + std::to_string(history.Unknown()) +
                 " records were written by a later version)");
  }
  if (others != 0) console.Note("(" + std::to_string(others) + " lines are not log lines)");
  const auto outages = history.Outages({period.begin, std::min(period.end, now)});
  const auto why = WhyNothing(rows, isOf, outages, zone);
  if (!why.empty() && (history.Records() != 0 || !rows.empty() || !outages.empty())) {
    console.Note(why);
  }
  while (options.follow) {
    Platform::CurrentMachine().clock->Sleep(LogFollower::kPoll);
    for (FollowedService& service : followed) service.Read(take);
    std::ranges::for_each(history.TakeChanges(), show);
  }
  return kDone;
}

constexpr char kFooter[] =
    "Reads the records in what a service writes: files, or a folder of logs. The times of --since "
    "and\n"
    "--until are 2026-11-25T11:30, 08:00 (today), yesterday, or 30m, 2h or 3d before now.\n"
    "  vxhost history --failed --since yesterday\n"
    "  vxhost history D:\\Logs --program tool.exe --json";

}  // namespace

std::filesystem::path LogFolderOf(const std::string& argument) {
  if (!argument.empty()) return FullPath(argument);
  return ServiceHost::LogsFolder(ServiceHost::ProgramDataFolder());
}

std::vector<std::filesystem::path> LogFilesIn(const std::filesystem::path& folder) {
  std::error_code error;
  static_cast<void>(std::filesystem::directory_iterator(folder, error));
  std::vector<std::filesystem::path> files;
  for (const auto& name : ServiceHost::LogFileNames(folder)) files.push_back(folder / name);
  if (!files.empty()) return files;
  const std::string why = error ? "cannot list " + Utf8(folder.wstring()) + ": " + error.message()
                                : "there is no NAME-YYYYMMDD-NNNN.log in " + Utf8(folder.wstring());
  throw std::runtime_error(why + (error == std::errc::permission_denied
                                      ? "; run as administrator"
                                      : "; name the log files, or install and start a service: "
                                        "vxhost service install"));
}

std::size_t ReadLog(const std::filesystem::path& path,
                    const std::function<void(const HistoryLine&)>& take, std::string_view part) {
  const std::wstring service = ServiceOf(path);
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + Utf8(path.wstring()));
  // A first byte beyond ASCII belongs to a byte-order mark, as PowerShell saves text in UTF-16.
  std::istringstream decoded;
  const bool marked = file.peek() > 0x7F;
  if (marked) decoded.str(Utf8(ReadTextFile(path.wstring())));
  std::istream& lines = marked ? static_cast<std::istream&>(decoded) : file;
  std::size_t others = 0;
  for (std::string text; std::getline(lines, text);) {
    if (text.find(part) == std::string::npos) continue;
    if (auto line = ParseHistoryLine(text)) {
      line->service = service;
      take(*line);
    } else if (text.find_first_not_of(" \t\r") != std::string::npos) {
      ++others;
    }
  }
  return others;
}

void AddHistoryCommand(CommandLine& line) {
  const auto [history, options] =
      line.Add({"history", "show the outcome of each delivery, from a service's log", kFooter},
               &RunHistory, Shared::Store | Shared::Json);
  history.add_option("file", options.files,
                     "log files, or their folder; by default that of the installed service");
  history.add_flag("--failed", options.failed, "only requests and deliveries that failed");
  CLI::Option* follow = history.add_flag(
      "--follow", options.follow,
      "then show each row as it is recorded, and once more when its delivery ends, until\n"
      "Ctrl+C");
  history.add_option("--since", options.since, "from this local time on");
  history.add_option("--until", options.until, "until this local time")->excludes(follow);
  history.add_flag("--utc", options.utc, "show times in UTC");
  history.add_option("--subscription", options.subscription,
                     "only this subscription, by its number in the store or its hash");
  history.add_option("--program", options.program,
                     "only programs or apps whose name or path contains this text");
  history
      .add_option("--timeline", options.timeline,
                  "draw the log as a web page, into this file; of the last day unless --since or\n"
                  "--until says otherwise")
      ->excludes(follow);
}

}  // namespace Vx::Hosting::Tool
