// long_run_test [DELIVERIES [COMMANDS]]: whether the module stays as large as it is, over a day's
// worth of commands and event deliveries.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include <windows.h>

#include "module/loaded_service.h"
#include "platform/unique_handle.h"
#include "support/handle_gauge.h"
#include "support/memory_in_use.h"
#include "support/temp_folder.h"

namespace Vx::Tests {
namespace {

// What a step may leave in the heap on average, in bytes: less than the smallest block would be,
// and something for what the system itself keeps.
constexpr std::size_t kBytesAStep = 8;
constexpr std::size_t kAllowance = std::size_t{16} * 1024;

// Memory is committed in pieces; the heap may need one more of them.
constexpr std::size_t kCommitAllowance = std::size_t{256} * 1024;

// Threads that the system's own pools may add.
constexpr std::size_t kSystemThreads = 4;

// Deliveries between two waits for their workers: as many as a host has between two events; bounds
// how many threads run at once.
constexpr std::size_t kSubscriptions = 3;
constexpr std::size_t kDeliveriesAtOnce = 16 * kSubscriptions;

struct Figures {
  std::uintptr_t handles = 0;
  std::size_t threads = 0;
  MemoryInUse memory;
};

Figures Measure(const char* when) {
  const Figures figures{HandleGauge(), ThreadCount(), MeasureMemory()};
  std::printf(
      "%-22s highest handle 0x%zx, %zu threads, %zu KiB committed, %zu bytes in heap blocks\n",
      when, static_cast<std::size_t>(figures.handles), figures.threads,
      figures.memory.committed / 1024, figures.memory.heap);
  static_cast<void>(std::fflush(stdout));
  return figures;
}

// One delivery of each kind at each event: a program that is not trusted, an app that is not there.
void Subscribe(LoadedService& service) {
  service.Execute(9,
                  LR"({"powerEventType":7,"eventAction":1,)"
                  LR"("commandParams":{"path":"C:\\windows\\system32\\none.exe"}})");
  service.Execute(9,
                  LR"({"powerEventType":7,"eventAction":1,)"
                  LR"("commandParams":{"path":"C:\\windows\\system32\\cmd.exe"}})");
  service.Execute(9,
                  LR"({"powerEventType":7,"eventAction":2,"commandParams":)"
                  LR"({"packageFamilyName":"f","appServiceName":"s","payload":{}}})");
}

// Has as many threads alive at once as the deliveries will have at most. The system keeps a block
// for every thread of the fullest moment so far, and whether that moment comes during the warm-up
// is chance otherwise.
void ReachTheMostThreads() {
  const Platform::UniqueHandle all(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::vector<std::jthread> threads(kDeliveriesAtOnce + 2 * kSystemThreads);
  for (std::jthread& thread : threads) {
    thread = std::jthread([&all] { WaitForSingleObject(all.get(), INFINITE); });
  }
  SetEvent(all.get());
}

// Whether all workers of these deliveries ended.
bool Deliver(LoadedService& service, std::size_t deliveries, std::size_t quiet) {
  for (std::size_t done = 0; done < deliveries; done += kSubscriptions) {
    service.Slots().power_event_task(7);
    if (done % kDeliveriesAtOnce == 0 && !ThreadsEnd(quiet + kSystemThreads)) return false;
  }
  return ThreadsEnd(quiet);  // a worker that is on its way out would count as growth
}

// Whether every answer was right.
bool Command(LoadedService& service, std::size_t commands) {
  static constexpr struct {
    std::uint32_t id;
    const wchar_t* request;
    std::uint32_t code;
  } kCommands[] = {
      {22, L"{}", 0},
      {20, L"{}", 0},
      {21, L"{}", 0},
      {12, L"", 0},
      {13, LR"({"launched":true})", 0},
      {13, LR"({"launched":false})", 0},
      {3, LR"({"keyName":"qubo_wakeup_for_smode_skip"})", 0},
      {5, LR"({"keyName":"qubo_wakeup_for_smode_skip"})", 0},
      {14, LR"({"zephraEventType":9,"n":1})", 0},
      {15, LR"({"zephraEventType":9,"n":1})", 0},
      {6, LR"({"packageFamilyName":"f"})", 0},
      {13, L"{}", 0x20000002},
      {1, L"{}", 0x20000001},
      {22, L"{", 0x20000003},
  };
  bool right = true;
  for (std::size_t done = 0; done < commands; ++done) {
    const auto& command = kCommands[done % std::size(kCommands)];
    right &= service.Execute(command.id, command.request).code == command.code;
  }
  return right;
}

std::size_t Growth(std::size_t before, std::size_t after) {
  return after > before ? after - before : 0;
}

bool Flat(const char* what, const Figures& before, const Figures& after, std::size_t steps) {
  const std::size_t grown = Growth(before.memory.heap, after.memory.heap);
  std::printf("%s: %zu steps, %zu bytes more in the heap, %.2f a step\n", what, steps, grown,
              static_cast<double>(grown) / static_cast<double>(std::max<std::size_t>(steps, 1)));
  return after.handles <= before.handles && after.threads <= before.threads &&
         grown <= kAllowance + kBytesAStep * steps &&
         Growth(before.memory.committed, after.memory.committed) <= kCommitAllowance;
}

bool Run(std::size_t deliveries, std::size_t commands) {
  const PrivateStore store;
  LoadedService service;
  Subscribe(service);
  const std::size_t quiet = ThreadCount();
  ReachTheMostThreads();
  bool good = Deliver(service, 300, quiet) && Command(service, 300);
  const Figures warm = Measure("warm");
  good = Deliver(service, deliveries, quiet) && good;
  const Figures delivered = Measure("after the deliveries");
  good = Flat("deliveries", warm, delivered, deliveries) && good;
  good = Command(service, commands) && good;
  const Figures commanded = Measure("after the commands");
  return Flat("commands", delivered, commanded, commands) && good;
}

std::size_t Count(char** arguments, int count, int index, std::size_t fallback) {
  return count > index ? std::strtoul(arguments[index], nullptr, 10) : fallback;
}

}  // namespace
}  // namespace Vx::Tests

int main(int argc, char** argv) {
  const std::size_t deliveries = Vx::Tests::Count(argv, argc, 1, 3000);
  const std::size_t commands = Vx::Tests::Count(argv, argc, 2, deliveries);
  const bool good = Vx::Tests::Run(deliveries, commands);
  std::printf(good ? "passed\n" : "failed\n");
  return good ? 0 : 1;
}
