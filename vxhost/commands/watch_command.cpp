#include "vxhost/commands/commands.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>

#include <windows.h>

#include "hosting/text.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/unique_handle.h"
#include "vxhost/service/log_follower.h"
#include "vxhost/service/service_manager.h"

namespace Vx::Hosting::Tool {

namespace {

// The shared memory through which programs pass debug output to the debug monitor.
struct DebugBuffer {
  DWORD process;
  std::array<char, 4096 - sizeof(DWORD)> text;
};

struct Unmapper {
  void operator()(const DebugBuffer* view) const { UnmapViewOfFile(view); }
};

// Removes the first word from `rest` and returns it.
std::wstring TakeWord(std::wstring& rest) {
  const std::size_t blank = rest.find(L' ');
  std::wstring word = rest.substr(0, blank);
  rest.erase(0, blank == std::wstring::npos ? blank : blank + 1);
  return word;
}

// Parses `LEVEL provider [caller] message`. Returns any other text as an INFO message.
LogLine ParseLogLine(const std::wstring& text) {
  LogLine line;
  std::wstring rest = text;
  line.level = TakeWord(rest);
  if (line.level != L"INFO" && line.level != L"WARNING" && line.level != L"ERROR") {
    return {.level = L"INFO", .provider = {}, .caller = {}, .message = text};
  }
  line.provider = TakeWord(rest);
  if (!rest.empty() && rest.front() == L'[') {
    if (const std::size_t end = rest.find(L"] "); end != std::wstring::npos) {
      line.caller = rest.substr(1, end - 1);
      rest.erase(0, end + 2);
    }
  }
  line.message = rest;
  return line;
}

// Receives debug output. Each session has at most one monitor. All services share the global one.
class Monitor {
 public:
  explicit Monitor(bool global) {
    const std::wstring prefix = global ? L"Global\\" : L"";
    MakeBuffer(prefix + L"DBWIN_BUFFER");
    bufferReady.reset(
        CreateEventW(nullptr, FALSE, FALSE, (prefix + L"DBWIN_BUFFER_READY").c_str()));
    dataReady.reset(CreateEventW(nullptr, FALSE, FALSE, (prefix + L"DBWIN_DATA_READY").c_str()));
    if (mapping != nullptr) {
      view.reset(static_cast<const DebugBuffer*>(
          MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, sizeof(DebugBuffer))));
    }
    if (bufferReady == nullptr || dataReady == nullptr || view == nullptr) {
      throw std::runtime_error("cannot receive debug output; close other monitors" +
                               std::string(global ? ", and run as administrator" : ""));
    }
  }

  // Receives the next line. Returns nothing if none arrives within `milliseconds`.
  std::optional<LogLine> Next(DWORD milliseconds) {
    SetEvent(bufferReady.get());
    if (WaitForSingleObject(dataReady.get(), milliseconds) != WAIT_OBJECT_0) return std::nullopt;
    const auto length = strnlen(view->text.data(), view->text.size());
    std::wstring text(length, L'\0');
    text.resize(static_cast<std::size_t>(MultiByteToWideChar(CP_ACP, 0, view->text.data(),
                                                             static_cast<int>(length), text.data(),
                                                             static_cast<int>(text.size()))));
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r')) text.pop_back();
    LogLine line = ParseLogLine(text);
    line.process = view->process;
    return line;
  }

 private:
  // Only a monitor creates the buffer. Two monitors sharing one would each receive only some of the
  // lines. A writer can keep the buffer alive for a moment after its monitor has exited.
  void MakeBuffer(const std::wstring& name) {
    constexpr int kAttempts = 20;
    constexpr DWORD kPause = 50;  // milliseconds
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      mapping.reset(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                       sizeof(DebugBuffer), name.c_str()));
      if (mapping == nullptr || GetLastError() != ERROR_ALREADY_EXISTS) return;
      mapping.reset();
      Sleep(kPause);
    }
    throw std::runtime_error(
        "another monitor receives the debug output, and two would share the lines; close it");
  }

  Platform::UniqueHandle bufferReady;
  Platform::UniqueHandle dataReady;
  Platform::UniqueHandle mapping;
  std::unique_ptr<const DebugBuffer, Unmapper> view;
};

// Returns the local time, with the date if `whole` is true.
std::wstring Now(bool whole) {
  FILETIME utc;
  FILETIME local;
  GetSystemTimeAsFileTime(&utc);
  FileTimeToLocalFileTime(&utc, &local);
  const std::wstring text = DateTimeText(std::bit_cast<std::uint64_t>(local));
  return whole ? text : text.substr(text.find(L'T') + 1);
}

constexpr const wchar_t* kLevels[] = {L"INFO", L"WARNING", L"ERROR"};
const std::vector<std::string> kLevelNames = {"info", "warning", "error"};

struct Options {
  int seconds = 0;
  bool global = false;
  std::vector<std::uint32_t> processes;
  std::string level = "info";
  std::string provider;
  std::string text;
};

bool Contains(const std::wstring& text, const std::string& part) {
  return text.find(Wide(part)) != std::wstring::npos;
}

// Returns whether the line passes the filters in `options`.
bool IsWanted(const LogLine& line, const Options& options) {
  if (line.provider.empty()) return false;  // debug output from another program
  const auto level = std::ranges::find(kLevels, line.level) - kLevels;
  if (level < std::ranges::find(kLevelNames, options.level) - kLevelNames.begin()) return false;
  const auto& processes = options.processes;
  if (!processes.empty() && std::ranges::find(processes, line.process) == processes.end()) {
    return false;
  }
  return Contains(line.provider, options.provider) && Contains(line.message, options.text);
}

// Requires administrator rights, because it reads the log files.
int WatchService(const Options& options, const std::string& service, Console& console) {
  constexpr wchar_t kEarlier[] = L"vxhost";  // names the log files of an earlier version
  const std::uint32_t process = ProcessOfService(Wide(service));
  LogFollower log(LogFolderOf({}).wstring(), {kEarlier, Wide(service)}, LogFollower::From::Now);
  std::fprintf(stderr, "Listening to process %lu%s\n", static_cast<unsigned long>(process),
               options.seconds == 0 ? "; Ctrl+C ends it" : "");
  Platform::Clock& clock = *Platform::CurrentMachine().clock;
  const std::uint64_t end = clock.TickCount() + static_cast<std::uint64_t>(options.seconds) * 1000;
  while (options.seconds == 0 || clock.TickCount() < end) {
    const auto text = log.Next();
    if (!text) {
      clock.Sleep(LogFollower::kPoll);
      continue;
    }
    // Skips a killed process's incomplete line, and lines of other services in the same folder.
    const auto line = ParseHistoryLine(*text);
    if (line && line->line.process == process && IsWanted(line->line, options)) {
      console.LogResult(line->line, line->time);
    }
  }
  return kDone;
}

int Watch(const Options& options, const ModuleOptions& module, Console& console) {
  if (!module.service.empty()) return WatchService(options, module.service, console);
  Monitor monitor(options.global);
  std::fprintf(stderr, "Listening for log lines%s\n",
               options.seconds == 0 ? "; Ctrl+C ends it" : "");
  const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(options.seconds) * 1000;
  while (options.seconds == 0 || GetTickCount64() < end) {
    const auto line = monitor.Next(250);
    if (line && IsWanted(*line, options)) console.LogResult(*line, Now(console.WritesJson()));
  }
  return kDone;
}

constexpr char kFooter[] =
    "With --service it follows the service's log files, which needs administrator rights. "
    "Without,\n"
    "only one monitor can receive the lines of a session: a second one is refused.\n"
    "  vxhost watch --level warning\n"
    "  vxhost watch --service --text 'power event'\n"
    "  vxhost watch --json --seconds 60 > lines.json";

}  // namespace

void AddWatchCommand(CommandLine& line) {
  const auto [watch, options] =
      line.Add({"watch", "show the log lines of a running module as it writes them", kFooter},
               &Watch, Shared::Service | Shared::Json);
  watch.add_option("--seconds", options.seconds, "how long; 0: until Ctrl+C")
      ->check(CLI::Range(0, kLongestSeconds));
  watch.add_option("--pid", options.processes, "only lines of these processes");
  watch
      .add_option("--level", options.level,
                  "only lines of at least this level: info, warning or error")
      ->check(CLI::IsMember(kLevelNames));
  watch.add_option("--provider", options.provider, "only lines whose provider contains this");
  watch.add_option("--text", options.text, "only lines that contain this");
  watch.add_flag("--global", options.global, "those of services (needs administrator rights)");
}

}  // namespace Vx::Hosting::Tool
