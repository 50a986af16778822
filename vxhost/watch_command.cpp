#include "vxhost/watch_command.h"

#include <array>
#include <cstdio>
#include <cwchar>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>

#include <windows.h>

#include "platform/unique_handle.h"
#include "vxhost/text.h"

namespace Vx::Host {

namespace {

// The memory shared by the programs that write debug output and its only monitor: the writer's
// process id, then narrow text.
struct DebugBuffer {
  DWORD process;
  std::array<char, 4096 - sizeof(DWORD)> text;
};

struct Unmapper {
  void operator()(const DebugBuffer* view) const { UnmapViewOfFile(view); }
};

// The receiving end. A session has at most one, and all services share one under the global names.
class Monitor {
 public:
  explicit Monitor(bool global) {
    const std::wstring prefix = global ? L"Global\\" : L"";
    bufferReady.reset(
        CreateEventW(nullptr, FALSE, FALSE, (prefix + L"DBWIN_BUFFER_READY").c_str()));
    dataReady.reset(CreateEventW(nullptr, FALSE, FALSE, (prefix + L"DBWIN_DATA_READY").c_str()));
    mapping.reset(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                     sizeof(DebugBuffer), (prefix + L"DBWIN_BUFFER").c_str()));
    if (mapping != nullptr) {
      view.reset(static_cast<const DebugBuffer*>(
          MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, sizeof(DebugBuffer))));
    }
    if (bufferReady == nullptr || dataReady == nullptr || view == nullptr) {
      throw std::runtime_error("cannot receive debug output; close other monitors" +
                               std::string(global ? ", and run as administrator" : ""));
    }
  }

  // Receives the next text, without its line end. Returns false when none comes in `milliseconds`.
  bool Next(DWORD milliseconds, std::wstring& text) {
    SetEvent(bufferReady.get());
    if (WaitForSingleObject(dataReady.get(), milliseconds) != WAIT_OBJECT_0) return false;
    const auto length = strnlen(view->text.data(), view->text.size());
    text.assign(length, L'\0');
    text.resize(static_cast<std::size_t>(MultiByteToWideChar(CP_ACP, 0, view->text.data(),
                                                             static_cast<int>(length), text.data(),
                                                             static_cast<int>(text.size()))));
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r')) text.pop_back();
    return true;
  }

 private:
  Platform::UniqueHandle bufferReady;
  Platform::UniqueHandle dataReady;
  Platform::UniqueHandle mapping;
  std::unique_ptr<const DebugBuffer, Unmapper> view;
};

// The local time: with the date for programs, without it for people.
std::wstring Now(bool whole) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  wchar_t text[32];
  std::swprintf(text, std::size(text), L"%04u-%02u-%02uT%02u:%02u:%02u.%03u", now.wYear, now.wMonth,
                now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
  return whole ? text : std::wcschr(text, L'T') + 1;
}

struct Options {
  int seconds = 0;
  bool global = false;
  const bool& json;
};

int Watch(const Options& options, Console& console) {
  Monitor monitor(options.global);
  std::fprintf(stderr, "Listening for log lines%s\n",
               options.seconds == 0 ? "; Ctrl+C ends it" : "");
  const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(options.seconds) * 1000;
  std::wstring text;
  while (options.seconds == 0 || GetTickCount64() < end) {
    // Debug output of other programs has no provider.
    if (!monitor.Next(250, text)) continue;
    if (const LogLine line = ParseLogLine(text); !line.provider.empty())
      console.LogResult(line, Now(options.json));
  }
  return kDone;
}

constexpr char kFooter[] =
    "  vxhost watch\n"
    "  vxhost watch --json --seconds 60 > lines.json";

}  // namespace

void AddWatchCommand(CommandLine& line) {
  const auto options = std::make_shared<Options>(Options{.json = line.Json()});
  CLI::App& watch =
      line.Add("watch", "show the log lines of a running module as it writes them", kFooter,
               [options](Console& console) { return Watch(*options, console); });
  watch.add_option("--seconds", options->seconds, "how long; 0: until Ctrl+C")
      ->check(CLI::Range(0, kLongestSeconds));
  line.OfferJson(watch);
  watch.add_flag("--global", options->global, "those of services (needs administrator rights)");
}

}  // namespace Vx::Host
