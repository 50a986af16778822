// Checks that a host does not leak over a day's events and commands. The environment variable
// VX_STEPS sets the number of codes (see scripts/soak).

#include "platform/thread.h"
#include "servicehost/host_loop.h"
#include "servicehost/log_folder.h"
#include "servicehost/open_pipe.h"
#include "servicehost/pipe_server.h"
#include "support/test.h"
#include "vxhost/service/pipe_client.h"

namespace Vx::Hosting::ServiceHost {
namespace {

constexpr std::size_t kConnections = 50;
// Nine bytes, or a page, kept at each of the day's thousand steps would exceed these.
constexpr std::size_t kHeapAllowance = std::size_t{8} * 1024;
constexpr std::size_t kCommitAllowance = std::size_t{1} << 20;

// Returns how many handles this process has open. Counts them one by one: those leaked while many
// connections are open have high values, of which HandleGauge detects only some.
std::size_t OpenHandles() {
  constexpr std::uintptr_t kBeyond = 0x8000;
  std::size_t open = 0;
  DWORD flags = 0;
  for (std::uintptr_t value = 4; value < kBeyond; value += 4) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): handle values are multiples of four
    if (GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) != FALSE) ++open;
  }
  return open;
}

class ServiceSoakTest : public ::testing::Test {
 protected:
  // Sends power and session codes, and one command per ten codes over separate connections. Then
  // some clients disconnect in the middle of an exchange.
  void LiveThrough(std::size_t codes) {
    std::vector<Platform::Thread> clients;
    const std::size_t each = codes / 10 / kConnections;
    for (std::size_t client = 0; client < kConnections; ++client) {
      clients.emplace_back([this, each] {
        Tool::PipeClient connection(path, GetCurrentProcessId(), std::chrono::seconds(60));
        for (std::size_t i = 0; i < each; ++i) {
          EXPECT_EQ(connection.Execute({i % 2 == 0 ? 20U : 22U, L"{}"}).code, 0U);
        }
      });
    }
    for (std::size_t code = 0; code < codes; ++code) {
      if (code % 10 == 9) {
        host.OnSession(code % 20 == 9 ? 7 : 8);
      } else {
        host.OnPower(code % 3 == 0 ? 10 : 32787);
      }
    }
    for (Platform::Thread& client : clients) client.Join();
    for (std::size_t i = 0; i < codes / 500; ++i) BreakOff(i);
  }

  void BreakOff(std::size_t kind) {
    const Platform::UniqueHandle pipe = OpenPipe(path);
    const std::string whole = WriteCommand({22, L"{}"});
    const std::string message = kind % 3 == 0 ? "" : kind % 3 == 1 ? whole.substr(0, 5) : whole;
    DWORD written = 0;
    if (!message.empty()) {
      WriteFile(pipe.get(), message.data(), static_cast<DWORD>(message.size()), &written, nullptr);
    }
  }

  Tests::PrivateStore store;
  Tests::TempFolder logs;
  const std::wstring path = PipePath(L"soak-" + std::to_wstring(GetCurrentProcessId()));
  LogFolder folder{logs.Path().wstring(), L"soak"};
  ServiceLog log{{[this](const LogEntry& entry) { folder.Write(entry); }}};
  HostLoop host{{Tests::ModulePath(), false}, log};
  PipeServer server{{.path = path, .allowed = {}},
                    [this](const CommandEnvelope& command, const std::wstring& client) {
                      return host.Execute(command, client);
                    },
                    [](const wchar_t*, std::wstring_view) {}};
};

TEST_F(ServiceSoakTest, ADayLeavesHandlesThreadsAndMemoryWhereTheyWere) {
  host.Execute(
      {9, LR"({"powerEventType":10,"eventAction":1,"commandParams":{"path":"C:\\no.exe"}})"}, L"s");
  Tests::StartFrameworkThread();
  const std::size_t quiet = Tests::ThreadCount();
  const std::size_t day = Tests::Setting("VX_STEPS", 1000);
  LiveThrough(1000);
  struct Figures {
    std::size_t threads = 0;
    std::size_t handles = 0;
    Tests::MemoryInUse memory;
  };
  const auto measure = [this, quiet](std::size_t handles, const char* when) {
    log.Flush();
    Tests::ThreadsEnd(quiet + 1);  // the last connection's thread is joined at the next one
    Tests::Eventually([&] { return OpenHandles() <= handles + Tests::kMutexEvents; }, 5s);
    const Figures now{Tests::ThreadCount(), OpenHandles(), Tests::MeasureMemory()};
    std::printf("%-9s %zu threads, %zu handles, %zu KiB committed, %zu bytes in blocks\n", when,
                now.threads, now.handles, now.memory.committed / 1024, now.memory.heap);
    return now;
  };
  const bool measurable = Tests::MemoryIsMeasurable();
  const Figures warm = measure(SIZE_MAX - Tests::kMutexEvents, "warm");
  Figures after = warm;
  // A leak grows every day. A day with more threads at once than any before grows the heap once.
  bool grows = true;
  for (int days = 0; days < 3 && grows; ++days) {
    const Tests::MemoryInUse before = after.memory;
    LiveThrough(day);
    after = measure(warm.handles, "afterward");
    grows = measurable && (after.memory.heap > before.heap + kHeapAllowance ||
                           after.memory.committed > before.committed + kCommitAllowance);
  }
  EXPECT_LE(after.threads, quiet + 1);  // as above: the last connection may not be joined yet
  EXPECT_LE(after.handles, warm.handles + Tests::kMutexEvents);
  EXPECT_FALSE(grows);
}

}  // namespace
}  // namespace Vx::Hosting::ServiceHost
