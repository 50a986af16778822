// Measures commands under load: on many threads at once, and while deliveries wait.
//
// Usage: load_bench [--brief] [--json FILE]
#include <bitset>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

#include "bench/beside.h"
#include "bench/loaded_service.h"
#include "bench/ratio_table.h"
#include "events/subscription_forms.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"
#include "support/process_gauges.h"
#include "support/temp_folder.h"

namespace {

using namespace Vx;
using namespace Vx::Bench;
using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::CapDataStore;
namespace Orvane = Tessel::Server::Services::Orvane;

constexpr std::uint32_t kVersion = 22;
constexpr wchar_t kRequest[] = L"{}";
constexpr std::uint32_t kPowerStatusChanged = 10;  // an event after which nothing else happens

void RunMany(LoadedService& service, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) service.Run(kVersion, kRequest, 0);
}

std::size_t Processors() {
  DWORD_PTR own = 0;
  DWORD_PTR all = 0;
  GetProcessAffinityMask(GetCurrentProcess(), &own, &all);
  return std::bitset<64>(own).count();
}

// Compares 16 threads that run `each` operations each with one thread that runs all of these,
// divided by the number of processors.
template <typename Operations>
void CompareThreads(RatioTable& table, const std::string& name, double goal, std::size_t each,
                    const Operations& run) {
  constexpr std::size_t kThreads = 16;
  const std::size_t processors = Processors();
  table.Compare(
      "16 threads at once, " + name, "one thread, by " + std::to_string(processors) + " processors",
      goal, 1,
      [&] {
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < kThreads; ++i) threads.emplace_back([&] { run(each); });
        for (auto& thread : threads) thread.join();
      },
      [&] { run(kThreads * each / processors); });
}

void MeasureThreads(const std::wstring& module, RatioTable& table, Effort effort) {
  constexpr std::size_t kResponse = 60;  // bytes
  const std::size_t each = effort == Effort::Brief ? 100 : 100'000;
  LoadedService service(module);
  CompareThreads(table, "slot 3, id 22", 1.11, each,
                 [&](std::size_t count) { RunMany(service, count); });
  // The heap, from which every response is allocated.
  CompareThreads(table, "malloc and free", 0, each, [](std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      void* block = std::malloc(kResponse);
      Keep(block);
      std::free(block);
    }
  });
}

std::wstring Waiting(std::size_t number) {
  return LR"({"powerEventType":10,"eventAction":2,"commandParams":{"packageFamilyName":"Family_)" +
         std::to_wstring(number) +
         LR"(","appServiceName":"s","payload":{},"delayDeliverySec":"3600"}})";
}

// Alternates between a service whose deliveries wait and an idle one.
void MeasureBesideWaits(const std::wstring& module, RatioTable& table, Effort effort) {
  const std::size_t count = effort == Effort::Brief ? 10 : 1000;
  const std::size_t commands = effort == Effort::Brief ? 100 : 500'000;
  const Tests::PrivateStore folder;
  std::wstring list = L"[";
  for (std::size_t i = 0; i < count; ++i) list += Waiting(i) + (i + 1 < count ? L"," : L"]");
  CapDataStore().mergeMember(Orvane::kServiceDocument, Orvane::kPowerForm.list,
                             BsonElement::Text(list));

  auto service = std::make_unique<LoadedService>(module);
  const std::size_t threads = Tests::ThreadCount();
  bool waits = false;
  const auto turn = [&] {
    service.reset();
    if (!Tests::ThreadsEnd(threads)) throw std::runtime_error("a delivery does not end");
    service = std::make_unique<LoadedService>(module);
    waits = !waits;
    if (!waits) return;
    service->PowerEvent(kPowerStatusChanged);
    if (Tests::ThreadCount() < threads + count) throw std::runtime_error("a delivery is lost");
  };
  turn();
  table.Compare(
      "id 22 beside " + std::to_string(count) + " waiting deliveries", "on an idle service", 1.10,
      1, [&] { RunMany(*service, commands); }, [&] { RunMany(*service, commands); }, turn);
}

}  // namespace

int main(int argc, char** argv) {
  const std::wstring module = Beside(L"..\\bin\\OrvaneService.dll");
  return RunBenchmarks(argc, argv, [&](RatioTable& table, Effort effort) {
    MeasureThreads(module, table, effort);
    MeasureBesideWaits(module, table, effort);
  });
}
