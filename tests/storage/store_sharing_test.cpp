#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

#include "storage/cap_data_store.h"
#include "storage/request_list.h"
#include "storage/request_manager.h"
#include "storage/store_file.h"
#include "support/log_capture.h"
#include "support/probe.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Storage {

namespace {

using Services::Orvane::kPowerSubscriptions;
using Services::Orvane::kServiceDocument;
using Services::Orvane::RequestManager;

constexpr DWORD kDeadline = 60'000;  // milliseconds

// A running store_worker; killed at the end when it has not ended by itself.
class Worker {
 public:
  explicit Worker(const std::wstring& arguments) {
    std::wstring line = L"\"" + Tests::TestFolder() + L"\\store_worker.exe\" " + arguments;
    STARTUPINFOW start{};
    start.cb = sizeof start;
    PROCESS_INFORMATION started{};
    EXPECT_TRUE(CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                               &start, &started));
    process.reset(started.hProcess);
    const Platform::UniqueHandle thread(started.hThread);
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  ~Worker() { Kill(); }

  void Kill() {
    TerminateProcess(process.get(), 9);
    WaitForSingleObject(process.get(), kDeadline);
  }

  DWORD ExitCode() {
    DWORD code = STILL_ACTIVE;
    EXPECT_EQ(WaitForSingleObject(process.get(), kDeadline), WAIT_OBJECT_0);
    GetExitCodeProcess(process.get(), &code);
    return code;
  }

 private:
  Platform::UniqueHandle process;
};

class StoreSharingTest : public testing::Test {
 protected:
  // Runs `body` with 0, 1, ... on threads at the same time.
  template <typename Body>
  static void Together(int threads, const Body& body) {
    std::vector<std::thread> running;
    running.reserve(static_cast<std::size_t>(threads));
    for (int i = 0; i < threads; ++i) running.emplace_back([&body, i] { body(i); });
    for (std::thread& thread : running) thread.join();
  }

  Tests::PrivateStore home;
};

TEST_F(StoreSharingTest, ThreadsAndProcessesThatMergeDifferentMembersLoseNothing) {
  constexpr int kCount = 15;
  const std::wstring count = std::to_wstring(kCount);
  Worker first(L"merge document first " + count);
  Worker second(L"merge document second " + count);
  Together(2, [&](int i) {
    for (int value = 0; value < kCount; ++value) {
      CapDataStore store;
      EXPECT_TRUE(
          store.mergeMember("document", "thread" + std::to_string(i), BsonElement::Int32(value)));
    }
  });
  EXPECT_EQ(first.ExitCode(), 0U);
  EXPECT_EQ(second.ExitCode(), 0U);
  const BsonDocument document = CapDataStore().readDocument("document");
  EXPECT_EQ(document.Size(), 4U);
  for (const char* member : {"first", "second", "thread0", "thread1"}) {
    EXPECT_EQ(document.Find(member)->AsInt32(), kCount - 1) << member;
  }
}

TEST_F(StoreSharingTest, SubscribersAndFlagWritersDoNotUndoOneAnother) {
  constexpr int kCount = 10;
  Worker subscriber(L"subscribe PowerEventSubscriptions process " + std::to_wstring(kCount));
  Together(3, [&](int i) {
    for (int n = 0; n < kCount; ++n) {
      if (i == 2) {
        CapDataStore store;
        EXPECT_TRUE(store.mergeMember(kServiceDocument, "Flag", BsonElement::Boolean(n % 2 != 0)));
        continue;
      }
      RequestManager manager(kServiceDocument, kPowerSubscriptions);
      const std::wstring request =
          L"{\"id\":\"" + std::to_wstring(i) + L"-" + std::to_wstring(n) + L"\"}";
      manager.PersistRequest(request);
      if (n % 2 == 0) manager.RemoveRequest(request);
    }
  });
  EXPECT_EQ(subscriber.ExitCode(), 0U);
  const std::wstring list = RequestManager(kServiceDocument, kPowerSubscriptions).StoredRequests();
  EXPECT_EQ(RequestsOf(list).size(), static_cast<std::size_t>(kCount + kCount));
  EXPECT_EQ(CapDataStore().readDocument(kServiceDocument).Find("Flag")->AsBoolean(), true);
}

TEST_F(StoreSharingTest, CopesWithWhatAKilledHolderLeft) {
  for (const int size : {0, 40, 72, 100}) {
    SCOPED_TRACE(size);
    Tests::WriteBytes(home.FilePath(), {});
    CapDataStore store;
    ASSERT_TRUE(store.persist("kept", L"value"));
    const std::wstring name =
        L"vx-cut-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(size);
    const Platform::UniqueHandle cut(CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
    Worker worker(L"cut \"" + home.FilePath() + L"\" " + std::to_wstring(size) + L" " + name);
    ASSERT_EQ(WaitForSingleObject(cut.get(), kDeadline), WAIT_OBJECT_0);
    std::thread killer([&worker] {
      Sleep(20);
      worker.Kill();
    });
    Tests::LogCapture log;
    BsonElement element;
    // Waits for the mutex until the holder is dead, and then owns it.
    EXPECT_EQ(store.read("kept", element), size <= 72);
    killer.join();
    EXPECT_EQ(log.Has(L"error|CapDataStore::read - File read error"), size > 72);
    EXPECT_TRUE(store.persist("new", true));
    EXPECT_EQ(Tests::DocumentOf(home.FilePath()).Size(), 2U);
  }
}

}  // namespace

}  // namespace Vx::Tessel::Server::Storage
