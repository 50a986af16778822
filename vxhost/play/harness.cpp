#include "vxhost/play/harness.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <windows.h>

#include "host/logging.h"
#include "hosting/text.h"
#include "platform/machine.h"
#include "service/orvane_service.h"
#include "simulator/simulated_machine.h"

namespace Vx::Hosting::Tool {

namespace {

namespace Logging = Tessel::Server::Logging;

// How long a simulated worker may run in real time. Exceeds the ten seconds for which a debug
// monitor that does not read delays a line.
constexpr std::chrono::seconds kPatience{30};

// How long tasks that outlive a service may still wait in virtual time. Exceeds any subscription's
// delay and any duration in a scenario.
constexpr std::chrono::hours kLongestTask{24 * 500};

// The real module and its service. Log lines are shown and recorded immediately, so that they
// precede their command's result.
struct RealHarness : Harness {
  RealHarness(const ModuleOptions& options, Console& output, const std::function<void()>& prepare)
      : Harness{output, PlayRecord([begin = std::chrono::steady_clock::now()] {
                  return std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - begin);
                })},
        store(options.privateStore ? std::make_unique<PrivateStore>() : nullptr),
        module(options.Path()),
        log(module, [this](const VxLogLine& given) {
          const LogLine line = LineOf(given);
          console.Log(line);
          record.Add({.what = Happening::Log, .log = line});
        }) {
    newService = [this] { return module.NewService(); };
    prepare();
    session = newService();
  }
  ~RealHarness() { session.End(); }  // the members that are destroyed next are in use until then

  std::unique_ptr<PrivateStore> store;
  LoadedModule module;
  ModuleLog log;
};

// Shows and records the linked service's log lines, each with its virtual time. A line that a poll
// repeats every second is shown once, and later again with the number of repetitions.
class SimulatedLog {
 public:
  SimulatedLog(Console& output, PlayRecord& keeper, const Simulator::VirtualClock& timeOf)
      : console(output),
        recorder(keeper),
        clock(timeOf),
        sink(Logging::LogManager::AddSink(
            [this](const Logging::LogRecord& record) { Take(record); })) {}
  SimulatedLog(const SimulatedLog&) = delete;
  SimulatedLog& operator=(const SimulatedLog&) = delete;
  ~SimulatedLog() { Logging::LogManager::RemoveSink(sink); }

  // Shows the repeat counts that have not been shown. No thread may log during the call.
  void ShowRepeated() {
    for (Said& said : recent) Show(said);
  }

 private:
  // At least the number of lines that one round of any poll writes.
  static constexpr std::size_t kRemembered = 5;
  static constexpr std::chrono::seconds kPollStep{1};

  struct Said {
    LogLine line;
    Simulator::VirtualClock::Duration first;
    Simulator::VirtualClock::Duration last;
    int repeated = 0;  // since last shown
  };

  void Show(Said& said) {
    if (said.repeated == 0) return;
    LogLine line = said.line;
    line.message += L" (" + std::to_wstring(std::exchange(said.repeated, 0)) +
                    L" times more since " + Simulator::FormatMoment(said.first) + L")";
    console.Log(line, Simulator::FormatMoment(said.last));
    said.first = said.last;
  }

  void Take(const Logging::LogRecord& record) {
    LogLine line{.level = LevelName(static_cast<std::uint32_t>(record.level)),
                 .provider = std::wstring(record.provider),
                 .caller = std::wstring(record.caller),
                 .message = std::wstring(record.message)};
    if (record.record != nullptr) {
      NoteDecision(*record.record);
      line.record = RecordOf(*record.record);
    }
    recorder.Add({.what = Happening::Log, .log = line});
    const auto now = clock.Moment();
    const auto found = std::find_if(recent.begin(), recent.end(), [&line](const Said& one) {
      return one.line.message == line.message;
    });
    if (found == recent.end()) {
      recent.push_back({.line = line, .first = now, .last = now});
    } else {
      // Moves the line to the end, so that the least recent one is removed first.
      std::rotate(found, found + 1, recent.end());
    }
    if (recent.size() > kRemembered) {
      Show(recent.front());
      recent.pop_front();
    }
    Said& said = recent.back();
    if (now - said.last <= kPollStep && (said.last != now || said.repeated != 0)) {
      said.last = now;
      ++said.repeated;
      return;
    }
    Show(said);
    said.first = said.last = now;
    console.Log(line, Simulator::FormatMoment(now));
  }

  Console& console;
  PlayRecord& recorder;
  const Simulator::VirtualClock& clock;
  std::deque<Said> recent;  // used by the sink, which is called on one thread at a time
  Logging::LogManager::SinkId sink;
};

// The service linked into this program, on a machine in memory with its own store.
struct SimulatedHarness : Harness {
  SimulatedHarness(Console& output, const std::function<void()>& prepare)
      : Harness{output, PlayRecord([this] { return simulated.clock.Moment(); }), &simulated},
        scope([this](Platform::Machine& real) { simulated.InstallSealed(real); }) {
    newService = [] {
      auto* service = Tessel::Server::Services::Orvane::OrvaneService::Create();
      if (service == nullptr) throw std::runtime_error("out of memory");
      return ServiceSession(service);
    };
    showRepeated = [this] { log->ShowRepeated(); };
    prepare();
    log.emplace(console, record, simulated.clock);
    session = newService();
    simulated.clock.SetPatience(kPatience);
    simulated.timeline.SetListener([this](const Simulator::Timeline::Entry& entry) {
      record.Add({.what = Happening::Event, .text = entry.text});
      console.Note(" * " + Utf8(Simulator::Format(entry)));
    });
  }
  // Destroys the service, and waits for the tasks that outlive it, before destroying the machine.
  // Does not show their log lines, because they would be out of place.
  ~SimulatedHarness() {
    simulated.timeline.SetListener({});
    log.reset();
    session.End();
    simulated.Drain(kLongestTask);
  }

  PrivateStore store;
  Simulator::SimulatedMachine simulated;
  Platform::MachineScope scope;
  std::optional<SimulatedLog> log;
};

}  // namespace

PrivateStore::PrivateStore()
    : folder(std::filesystem::temp_directory_path() /
             (L"vxhost-" + std::to_wstring(GetCurrentProcessId()))) {
  std::filesystem::create_directories(folder);
  SetEnvironmentVariableW(L"ProgramData", folder.wstring().c_str());
}

PrivateStore::~PrivateStore() {
  std::error_code ignored;  // a folder that contains other files stays
  for (const wchar_t* name :
       {L"Vx\\SharedServices\\shared_store.dat", L"Vx\\SharedServices", L"Vx"}) {
    std::filesystem::remove(folder / name, ignored);
  }
  std::filesystem::remove(folder, ignored);
}

std::shared_ptr<Harness> MakeHarness(const ModuleOptions& options, Console& console,
                                     const std::function<void()>& prepare) {
  if (!options.simulate) return std::make_shared<RealHarness>(options, console, prepare);
  if (!options.dll.empty()) throw std::runtime_error("--simulate does not use --dll");
  return std::make_shared<SimulatedHarness>(console, prepare);
}

}  // namespace Vx::Hosting::Tool
