// Compares the shared store and the subscriptions with the bare work that they cannot avoid.
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

#include <process.h>

#include "bench/ratio_table.h"
#include "events/subscription_delivery.h"
#include "json/json_text.h"
#include "platform/clock.h"
#include "platform/data_protection.h"
#include "platform/files.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/system_services.h"
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

// Does only what the format requires for one access: the mutex, the file, the encryption.
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

// Returns `count` requests. The first `matching` are for `event`, the others for the next one.
std::vector<std::wstring> Requests(std::size_t count, std::size_t matching, std::uint32_t event) {
  std::vector<std::wstring> requests;
  for (std::size_t i = 0; i < count; ++i) {
    requests.push_back(Request(i < matching ? event : event + 1, i));
  }
  return requests;
}

std::wstring List(std::size_t count, std::size_t matching, std::uint32_t event) {
  std::wstring list = L"[";
  for (const std::wstring& request : Requests(count, matching, event)) {
    if (list.size() > 1) list += L',';
    list += request;
  }
  return list + L"]";
}

void Plant(const std::wstring& list) {
  CapDataStore().mergeMember(kServiceDocument, kPowerSubscriptions, BsonElement::Text(list));
}

// Commands that do nothing. The first one may block. Commands run one at a time, so all workers
// exist then.
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

  // Returns the number since the last WaitForAll. Thread-safe.
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

void BareThreads(std::size_t count) {
  std::vector<Platform::UniqueHandle> threads;
  for (std::size_t i = 0; i < count; ++i) {
    threads.emplace_back(
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the C runtime gives a handle as a number
        reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &Nothing, nullptr, 0, nullptr)));
  }
  for (const auto& thread : threads) WaitForSingleObject(thread.get(), INFINITE);
}

// Does what an event cannot avoid: reads the store and each text, and starts a thread per match.
void BareEvent(BareStore& store, const std::vector<std::wstring>& requests, std::size_t matching) {
  store.ReadOnce();
  for (const std::wstring& request : requests) {
    Json::InlineDocument<4096> document;
    Json::ParseJson(*document, request);
    Keep(*document);
  }
  BareThreads(matching);
}

// Reports the memory in use while all workers of one event exist.
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
  // The emulator fails at about 5,000 threads, so only the smaller lists have a row in which every
  // request matches.
  static constexpr struct {
    std::size_t count;
    std::size_t matching;
    double goal;
  } kEvents[] = {
      {1, 0, 0},       {1, 1, 0},         {100, 0, 1.5},    {100, 1, 1.5},
      {100, 100, 1.5}, {1000, 0, 1.5},    {1000, 10, 1.5},  {1000, 1000, 1.5},
      {10000, 0, 1.5}, {10000, 100, 1.5}, {100000, 0, 1.5}, {100000, 1000, 1.5},
  };
  for (const auto& event : kEvents) {
    if (effort == Effort::Brief && event.count > 100) continue;
    const Tests::PrivateStore folder;
    Plant(List(event.count, event.matching, 7));
    BareStore bare(folder.FilePath());
    const std::vector<std::wstring> requests = Requests(event.count, event.matching, 7);
    const std::string name = "one event, " + std::to_string(event.count) + " subscriptions, " +
                             std::to_string(event.matching) + " match";
    std::size_t started = 0;
    table.Compare(
        name, "one store read, one parse of each, a thread for each that matches", event.goal, 1,
        [&] {
          FulfillSubscriptions(kPowerEvents, 7);
          started = threads.Started();
          threads.WaitForAll();
        },
        [&] { BareEvent(bare, requests, event.matching); });
    table.Report("threads started, " + name, static_cast<double>(started), "");
    if (event.matching == event.count) ReportPeak(table, commands, threads, event.count);
  }
}

// Compares changes to a list of `count` requests with parsing, changing and writing the whole list.
void MeasureChanges(RatioTable& table, std::size_t count) {
  const Tests::PrivateStore folder;
  auto& files = *Platform::CurrentMachine().files;
  const auto planted = [&](const std::wstring& list) {
    Plant(list);
    return *files.Read(folder.FilePath(), kFileLimit);
  };
  const std::wstring shorter = List(count - 1, 0, 7);
  const std::wstring longer = List(count, 0, 7);
  const auto shorterFile = planted(shorter);
  const auto longerFile = planted(longer);
  const std::wstring last = Request(8, count - 1);
  const std::wstring middle = Request(8, count / 2);
  const auto bare = [&](const std::wstring& list, const auto& change) {
    Json::WideDocument document;
    Json::ParseJson(document, list, Json::kMaxListNesting);
    change(document);
    CapDataStore().mergeMember(kServiceDocument, kPowerSubscriptions,
                               BsonElement::Text(Json::JsonText(document)));
  };
  const auto eraseMiddle = [&](Json::WideDocument& document) {
    auto element = document.Begin();
    while (Json::JsonText(*element) != middle) ++element;
    document.Erase(element);
  };
  constexpr char kAgainst[] = "rapidjson parse and write, and a store write";
  const auto restore = [&](const auto& file) { files.Overwrite(folder.FilePath(), file); };
  const auto manager = [] { return RequestManager(kServiceDocument, kPowerSubscriptions); };
  const std::string number = std::to_string(count);
  table.Compare(
      "adding subscription " + number, kAgainst, 1.10, 1,
      [&] {
        restore(shorterFile);
        manager().PersistRequest(last);
      },
      [&] {
        restore(shorterFile);
        bare(shorter, [&](Json::WideDocument& document) {
          Json::WideDocument element(&document.GetAllocator());
          Json::ParseJson(element, last);
          document.PushBack(element, document.GetAllocator());
        });
      });
  table.Compare(
      "removing one of " + number, kAgainst, 1.10, 1,
      [&] {
        restore(longerFile);
        UnregisterSubscription(kPowerEvents, middle);
      },
      [&] {
        restore(longerFile);
        bare(longer, eraseMiddle);
      });
  table.Compare(
      "completing one of " + number, kAgainst, 1.10, 1,
      [&] {
        restore(longerFile);
        manager().CompleteRequest(middle);
      },
      [&] {
        restore(longerFile);
        bare(longer, eraseMiddle);
      });
}

}  // namespace

int main(int argc, char** argv) {
  return RunBenchmarks(argc, argv, [](RatioTable& table, Effort effort) {
    MeasureStore(table);
    MeasureChanges(table, 1000);
    if (effort == Effort::Full) {
      for (const std::size_t count : {std::size_t{10'000}, std::size_t{100'000}})
        MeasureChanges(table, count);
    }
    MeasureDeliveries(table, effort);
  });
}
