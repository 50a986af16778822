// Compares eight processes that update one store with one process that makes as many updates alone.
//
// Usage: sharing_bench [--brief] [--json FILE]
// Starts itself as `sharing_bench --worker MEMBER COUNT GO READY` for each process.
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

#include "bench/ratio_table.h"
#include "platform/unique_handle.h"
#include "storage/cap_data_store.h"
#include "support/temp_folder.h"

namespace {

using namespace Vx;
using namespace Vx::Bench;
using Platform::UniqueHandle;
using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::CapDataStore;

constexpr DWORD kLongestWait = 120'000;  // milliseconds
constexpr char kDocument[] = "shared";

std::string Member(int number) {
  return "member" + std::to_string(number);
}

// Waits for the event, then sets the member to 1, 2, ... in the store.
int Work(const std::string& member, int count, const char* goName, const char* readyName) {
  const UniqueHandle go(CreateEventA(nullptr, TRUE, FALSE, goName));
  const UniqueHandle ready(CreateSemaphoreA(nullptr, 0, 64, readyName));
  CapDataStore store;
  ReleaseSemaphore(ready.get(), 1, nullptr);
  if (WaitForSingleObject(go.get(), kLongestWait) != WAIT_OBJECT_0) return 1;
  for (int i = 1; i <= count; ++i) {
    if (!store.mergeMember(kDocument, member, BsonElement::Int32(i))) return 1;
  }
  return 0;
}

// Processes that are released together. Run is timed from their release to the end of the last one.
class Workers {
 public:
  Workers(int processes, int updates) : count(processes), each(updates) {
    static int round = 0;
    const std::string name = std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++round);
    const std::string goName = "vx-bench-go-" + name;
    const std::string readyName = "vx-bench-ready-" + name;
    go.reset(CreateEventA(nullptr, TRUE, FALSE, goName.c_str()));
    const UniqueHandle ready(CreateSemaphoreA(nullptr, 0, 64, readyName.c_str()));
    const std::string rest = " " + std::to_string(each) + " " + goName + " " + readyName;
    for (int i = 0; i < count; ++i) Start("--worker " + Member(i) + rest);
    for (int i = 0; i < count; ++i) Await(ready.get());
  }

  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;
  ~Workers() {
    for (const auto& process : running) TerminateProcess(process.get(), 1);
  }

  void Run() {
    ran = true;
    SetEvent(go.get());
    for (const auto& process : running) Await(process.get());
  }

  bool Ran() const { return ran; }

  // Throws if an update was lost.
  void Check() const {
    const auto document = CapDataStore().readDocument(kDocument);
    for (int i = 0; i < count; ++i) {
      const auto value = document.Find(Member(i));
      if (!value || value->AsInt32() != each) throw std::runtime_error("an update is lost");
    }
  }

 private:
  static void Await(HANDLE object) {
    if (WaitForSingleObject(object, kLongestWait) != WAIT_OBJECT_0) {
      throw std::runtime_error("a worker does not end");
    }
  }

  void Start(const std::string& arguments) {
    char self[MAX_PATH * 4];
    GetModuleFileNameA(nullptr, self, sizeof self);
    std::string line = "\"" + std::string(self) + "\" " + arguments;
    STARTUPINFOA start{};
    start.cb = sizeof start;
    PROCESS_INFORMATION started{};
    if (CreateProcessA(self, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &start,
                       &started) == FALSE) {
      throw std::runtime_error("cannot start a worker");
    }
    const UniqueHandle thread(started.hThread);
    running.emplace_back(started.hProcess);
  }

  int count;
  int each;
  bool ran = false;
  UniqueHandle go;
  std::vector<UniqueHandle> running;
};

void Measure(RatioTable& table, Effort effort) {
  constexpr int kProcesses = 8;
  const int updates = effort == Effort::Brief ? 2 : 50;
  const Tests::PrivateStore folder;
  std::optional<Workers> many(std::in_place, kProcesses, updates);
  std::optional<Workers> one(std::in_place, 1, kProcesses * updates);
  const auto settle = [&] {
    if (many->Ran()) {
      many->Check();
      many.emplace(kProcesses, updates);
    }
    if (one->Ran()) {
      one->Check();
      one.emplace(1, kProcesses * updates);
    }
  };
  table.Compare(
      "8 processes, 50 updates each, of one store", "one process, 400 updates", 1.15, 1,
      [&] { many->Run(); }, [&] { one->Run(); }, settle);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 6 && std::strcmp(argv[1], "--worker") == 0) {
    return Work(argv[2], static_cast<int>(std::strtol(argv[3], nullptr, 10)), argv[4], argv[5]);
  }
  return RunBenchmarks(argc, argv, Measure);
}
