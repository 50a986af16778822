// The shared store and the subscriptions against the bare work that they cannot do without.
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

#include <process.h>

#include "bench/ratio_table.h"
#include "events/power_events.h"
#include "json/json_text.h"
#include "platform/app_services.h"
#include "platform/clock.h"
#include "platform/data_protection.h"
#include "platform/files.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/thread.h"
#include "storage/cap_data_store.h"
#include "storage/request_manager.h"
#include "support/process_gauges.h"
#include "support/temp_folder.h"

namespace {

using namespace Vx;
using namespace Vx::Bench;
using namespace Tessel::Server::Services::Orvane;
using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::CapDataStore;

constexpr std::size_t kHeader = 72;
constexpr std::size_t kFileLimit = std::size_t{64} << 20;

// What the format dictates for one access, and nothing else: the mutex, the file, the seal.
class BareStore {
 public:
  explicit BareStore(std::wstring file) : path(std::move(file)) {
    const auto& machine = Platform::CurrentMachine();
    mutex = *machine.kernelObjects->MakeMutex(L"18CC6446-1DB5-4D23-8F2B-441BA13883D6");
  }

  std::vector<std::byte> Read() {
    const auto& machine = Platform::CurrentMachine();
    const auto content = machine.files->Read(path, kFileLimit);
    return *machine.dataProtection->Unprotect(std::span(*content).subspan(kHeader));
  }

  void ReadOnce() {
    const auto& machine = Platform::CurrentMachine();
    machine.kernelObjects->LockMutex(mutex.get());
    Keep(Read());
    machine.kernelObjects->UnlockMutex(mutex.get());
  }

  void WriteOnce() {
    const auto& machine = Platform::CurrentMachine();
    machine.kernelObjects->LockMutex(mutex.get());
    const auto plain = Read();
    const auto sealed = *machine.dataProtection->Protect(plain, path);
    std::vector<std::byte> file(kHeader, std::byte{'0'});
    file.insert(file.end(), sealed.begin(), sealed.end());
    machine.files->Overwrite(path, file);
    machine.kernelObjects->UnlockMutex(mutex.get());
  }

  void Flush() {
    (*Platform::CurrentMachine().files->Open(path, Platform::FileUse::Change))->Flush();
  }

 private:
  std::wstring path;
  Platform::UniqueHandle mutex;
};

void MeasureStore(RatioTable& table) {
  const struct {
    const char* size;
    std::size_t bytes;
  } kSizes[] = {{"256 B", 256}, {"4 KiB", 4096}, {"64 KiB", 65536}};
  for (const auto& size : kSizes) {
    const Tests::PrivateStore folder;
    CapDataStore store;
    store.persist("filling", std::string(size.bytes, 'x'));
    store.persist("counter", BsonElement::Int32(0));
    BareStore bare(folder.FilePath());
    const std::string of = std::string(", ") + size.size;
    table.Compare(
        "store read" + of, "mutex, read, unprotect", 1.10, 3,
        [&] { Keep(store.requireInt32("counter")); }, [&] { bare.ReadOnce(); });
    std::int32_t count = 0;
    table.Compare(
        "store write" + of, "mutex, read, unprotect, protect, write", 1.60, 3,
        [&] { store.persist("counter", BsonElement::Int32(++count)); }, [&] { bare.WriteOnce(); });
    table.Compare(
        "price of the flush" + of, "the bare write without it", 0, 3,
        [&] {
          bare.WriteOnce();
          bare.Flush();
        },
        [&] { bare.WriteOnce(); });
  }
}

std::wstring Request(std::uint32_t event, std::size_t number) {
  return L"{\"powerEventType\":" + std::to_wstring(event) +
         L",\"eventAction\":2,\"commandParams\":{\"packageFamilyName\":\"Family_" +
         std::to_wstring(number) + L"\",\"appServiceName\":\"service\",\"payload\":{\"n\":1}}}";
}

std::wstring List(std::size_t count, std::size_t matching, std::uint32_t event) {
  std::wstring list = L"[";
  for (std::size_t i = 0; i < count; ++i) {
    if (i > 0) list += L',';
    list += Request(i < matching ? event : event + 1, i);
  }
  return list + L"]";
}

void Plant(const std::wstring& list) {
  CapDataStore().mergeMember(kServiceDocument, kPowerSubscriptions, BsonElement::Text(list));
}

// Commands that do nothing, the first of which may be held up: commands run one at a time, so that
// every worker is there while it waits.
class StubbedCommands final : public Platform::AppServices {
  class Stub final : public Platform::AppService {
   public:
    explicit Stub(const std::function<void()>& first) : meanwhile(first) {}
    std::pair<int, std::wstring> Send(const std::wstring&) override {
      if (meanwhile) std::exchange(meanwhile, nullptr)();
      return {};
    }
    void SystemRestarted() override {}

   private:
    std::function<void()> meanwhile;
  };

 public:
  std::unique_ptr<Platform::AppService> Open(const std::wstring&, const std::wstring&) override {
    return std::make_unique<Stub>(std::exchange(atFirst, nullptr));
  }

  std::function<void()> atFirst;  // called by the next command
};

// Counts the workers, so that the benchmark knows when the last one has ended.
class CountingThreads final : public Platform::Threads {
 public:
  explicit CountingThreads(Platform::Threads& real) : threads(real) {}

  Platform::Result<Platform::UniqueHandle> Start(std::function<void()> body) override {
    auto started = threads.Start(std::move(body));
    if (started) {
      HANDLE copy = nullptr;
      DuplicateHandle(GetCurrentProcess(), started->get(), GetCurrentProcess(), &copy, SYNCHRONIZE,
                      FALSE, 0);
      handles.emplace_back(copy);
      ++count;
    }
    return started;
  }

  // Since the last WaitForAll. Any thread may ask.
  std::size_t Started() const { return count; }

  void WaitForAll() {
    for (const auto& handle : handles) WaitForSingleObject(handle.get(), INFINITE);
    handles.clear();
    count = 0;
  }

 private:
  Platform::Threads& threads;
  std::atomic<std::size_t> count{0};
  std::vector<Platform::UniqueHandle> handles;
};

unsigned __stdcall Nothing(void*) {
  return 0;
}

void BareThreadsAndParses(std::size_t count, const std::wstring& list) {
  Json::WideDocument whole;
  Json::ParseJson(whole, list, Json::kMaxListNesting);
  std::vector<Platform::UniqueHandle> threads;
  for (std::size_t i = 0; i < count; ++i) {
    threads.emplace_back(
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the C runtime gives a handle as a number
        reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &Nothing, nullptr, 0, nullptr)));
  }
  for (const auto& thread : threads) WaitForSingleObject(thread.get(), INFINITE);
}

// The memory while all workers of one event are there.
void ReportPeak(RatioTable& table, StubbedCommands& commands, CountingThreads& threads,
                std::size_t count) {
  const auto before = Tests::MeasureMemory();
  Tests::MemoryInUse peak;
  commands.atFirst = [&] {
    while (threads.Started() < count) Sleep(1);
    peak = Tests::MeasureMemory();
  };
  FulfillSubscriptions(kPowerEvents, 7);
  threads.WaitForAll();
  constexpr double kMebibyte = 1 << 20;
  const std::string of = ", one event, " + std::to_string(count) + " subscriptions match";
  table.Report("peak address space" + of,
               static_cast<double>(peak.addresses - before.addresses) / kMebibyte, "MiB");
  table.Report("peak private bytes" + of,
               static_cast<double>(peak.committed - before.committed) / kMebibyte, "MiB");
}

void MeasureDeliveries(RatioTable& table, Effort effort) {
  StubbedCommands commands;
  CountingThreads threads(*Platform::CurrentMachine().threads);
  const Platform::MachineScope scope([&](Platform::Machine& machine) {
    machine.appServices = &commands;
    machine.threads = &threads;
  });
  for (const std::size_t count : {std::size_t{1}, std::size_t{100}, std::size_t{1000}}) {
    if (effort == Effort::Brief && count > 100) continue;
    for (const std::size_t matching : {std::size_t{0}, std::size_t{1}, count}) {
      if (matching == 1 && count == 1) continue;
      const Tests::PrivateStore folder;
      const std::wstring list = List(count, matching, 7);
      Plant(list);
      table.Compare(
          "one event, " + std::to_string(count) + " subscriptions, " + std::to_string(matching) +
              " match",
          "as many bare threads, one parse, one store read", 1.20, 1,
          [&] {
            FulfillSubscriptions(kPowerEvents, 7);
            threads.WaitForAll();
          },
          [&] {
            Keep(CapDataStore().readDocument(kServiceDocument));
            BareThreadsAndParses(count, list);
          });
      if (matching == count) ReportPeak(table, commands, threads, count);
    }
  }
}

void MeasureAdding(RatioTable& table) {
  const Tests::PrivateStore folder;
  const std::wstring list = List(999, 999, 7);
  const std::wstring added = Request(7, 999);
  Plant(list);
  auto& files = *Platform::CurrentMachine().files;
  const auto planted = *files.Read(folder.FilePath(), kFileLimit);
  table.Compare(
      "adding the 1,000th subscription", "rapidjson parse and write, and a store write", 1.5, 1,
      [&] {
        files.Overwrite(folder.FilePath(), planted);
        RequestManager(kServiceDocument, kPowerSubscriptions).PersistRequest(added);
      },
      [&] {
        files.Overwrite(folder.FilePath(), planted);
        Json::WideDocument document;
        Json::ParseJson(document, list, Json::kMaxListNesting);
        Json::WideDocument element(&document.GetAllocator());
        Json::ParseJson(element, added);
        document.PushBack(element, document.GetAllocator());
        CapDataStore().mergeMember(kServiceDocument, kPowerSubscriptions,
                                   BsonElement::Text(Json::JsonText(document)));
      });
}

}  // namespace

int main(int argc, char** argv) {
  return RunBenchmarks(argc, argv, [](RatioTable& table, Effort effort) {
    MeasureStore(table);
    MeasureAdding(table);
    MeasureDeliveries(table, effort);
  });
}
