#include "standins/debug_monitor.h"

#include "host/logging.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Logging {
namespace {

using Platform::UniqueHandle;
using Clock = std::chrono::steady_clock;

constexpr DWORD kBufferSize = 4096;

// A debug-output monitor's objects, under their real names. `protection` can make accesses fault.
class Monitor {
 public:
  explicit Monitor(DWORD protection = PAGE_READWRITE)
      : bufferReady(CreateEventW(nullptr, FALSE, TRUE, L"DBWIN_BUFFER_READY")),
        dataReady(CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_DATA_READY")),
        buffer(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, protection, 0, kBufferSize,
                                  L"DBWIN_BUFFER")),
        view(static_cast<const char*>(
            MapViewOfFile(buffer.get(), FILE_MAP_READ, 0, 0, kBufferSize))) {}
  ~Monitor() { UnmapViewOfFile(view); }

  std::string ReadLine() const {
    std::string line;
    while (line.empty() || line.back() != '\n') {
      if (WaitForSingleObject(dataReady.get(), 20'000) != WAIT_OBJECT_0) break;
      DWORD writer = 0;
      std::memcpy(&writer, view, sizeof writer);
      if (writer == GetCurrentProcessId()) line += view + sizeof writer;
      SetEvent(bufferReady.get());
    }
    return line;
  }

  bool HoldsTheTextAlone() const {
    const char* end = view + kBufferSize;
    return std::all_of(std::find(view + sizeof(DWORD), end, '\0'), end,
                       [](char c) { return c == '\0'; });
  }

 private:
  UniqueHandle bufferReady;
  UniqueHandle dataReady;
  UniqueHandle buffer;
  const char* view;
};

void Log(const std::wstring& text) {
  LogManager::SetProvider("Vx-Test")->LogWarning(L"%s", text.c_str());
}

// Runs `body` in its own process, because the module remembers a monitor until process exit. The
// process exits with 0 if `body` returns true, and with 3 if it hangs.
void ExpectInOwnProcess(const std::function<bool()>& body) {
  EXPECT_EXIT(
      {
        std::thread([] {
          std::this_thread::sleep_for(30s);
          std::_Exit(3);
        }).detach();
        std::_Exit(body() ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

// Readers run as other users, so a short line must not reveal the rest of an earlier, longer one.
TEST(DebugMonitorTest, ReceivesEachLineWholeAndNothingElseOfThisProcess) {
  ExpectInOwnProcess([] {
    const Monitor monitor;
    std::string lines;
    std::thread reader([&] {
      lines = monitor.ReadLine();
      lines += monitor.ReadLine();
    });
    Log(std::wstring(4000, L'x'));
    Log(L"short");
    reader.join();
    return lines == "WARNING Vx-Test " + std::string(4000, 'x') + "\nWARNING Vx-Test short\n" &&
           monitor.HoldsTheTextAlone();
  });
}

// Logs 50 lines, which would take five seconds if each waited. No line should end the process.
bool LosesPatienceOnce() {
  const auto begin = Clock::now();
  for (int i = 0; i < 50; ++i) Log(L"x");
  return Clock::now() - begin < 3s;
}

TEST(DebugMonitorTest, DelaysOneLineIfTheMonitorDoesNotReadOrCannotBeWrittenTo) {
  for (const DWORD protection :
       {DWORD{PAGE_READWRITE}, DWORD{PAGE_READONLY}, DWORD{PAGE_READWRITE} | DWORD{SEC_RESERVE}}) {
    SCOPED_TRACE(protection);
    ExpectInOwnProcess([protection] {
      const Monitor monitor(protection);
      return LosesPatienceOnce();
    });
  }
}

TEST(DebugMonitorTest, DelaysOneLineWhileAnotherWriterOwnsTheMutex) {
  ExpectInOwnProcess([] {
    const UniqueHandle owned(CreateMutexW(nullptr, TRUE, L"DBWinMutex"));
    const Monitor monitor;
    bool patient = false;
    std::thread([&] { patient = LosesPatienceOnce(); }).join();
    return patient;
  });
}

}  // namespace
}  // namespace Vx::Tessel::Server::Logging
