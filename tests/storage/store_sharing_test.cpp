#include <atomic>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

#include "storage/cap_data_store.h"
#include "storage/request_list.h"
#include "storage/request_manager.h"
#include "storage/store_file.h"
#include "storage/store_storm.h"
#include "support/probe.h"
#include "support/setting.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Storage {

namespace {

using Services::Orvane::kPowerSubscriptions;
using Services::Orvane::kServiceDocument;
using Services::Orvane::RequestManager;

constexpr DWORD kDeadline = 60'000;  // milliseconds
constexpr wchar_t kMutexName[] = L"18CC6446-1DB5-4D23-8F2B-441BA13883D6";

// A running store_worker. The destructor kills it if it is still running.
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
  // Runs `body` with 0, 1, ... on one thread each, all at the same time.
  template <typename Body>
  static void Together(int threads, const Body& body) {
    std::vector<std::thread> running;
    running.reserve(static_cast<std::size_t>(threads));
    for (int i = 0; i < threads; ++i) running.emplace_back([&body, i] { body(i); });
    for (std::thread& thread : running) thread.join();
  }

  Tests::PrivateStore home;
};

TEST_F(StoreSharingTest, SubscribersAndFlagWritersDoNotUndoOneAnother) {
  constexpr int kCount = 10;
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
  const std::wstring list = RequestManager(kServiceDocument, kPowerSubscriptions).StoredRequests();
  EXPECT_EQ(RequestsOf(list).size(), static_cast<std::size_t>(kCount));
  EXPECT_EQ(CapDataStore().readDocument(kServiceDocument).Find("Flag")->AsBoolean(), true);
}

// Processes whose threads all write one store. The test kills and replaces one after the other.
class StoreStormTest : public testing::Test {
 protected:
  // Runs one storm on a fresh store that holds a value of another service.
  void Storm(std::mt19937& random) {
    const CapDataStore maker;
    BsonDocument others;
    others.Set("sleep_state", BsonElement::Int32(kOthers));
    Tests::WriteBytes(home.FilePath(), Tests::StoreFile(others.Encoded()));

    const std::wstring name =
        L"vx-storm-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++storms);
    const Tests::SharedNotes notes(name);
    std::map<std::size_t, Worker> running;
    std::vector<std::size_t> dead;  // since whose last write nothing could have cut the file
    bool wasCut = false;
    for (std::size_t next = 0; next < kProcesses; ++next) {
      running.try_emplace(next, name + L" " + std::to_wstring(next));
      if (running.size() < kAtOnce) continue;
      const auto victim = std::next(running.begin(), static_cast<int>(random() % kAtOnce));
      const Tests::StormProcess& process = notes->processes.at(victim->first);
      ASSERT_TRUE(HasBegun(process));
      Sleep(random() % kLongestLife);
      victim->second.Kill();
      ++kills;
      dead.push_back(victim->first);
      running.erase(victim);
      if (process.writing) {
        ++cuts;
        wasCut = true;
        dead.clear();
      }
      LookAtFile(wasCut);
    }
    notes->end = true;
    for (auto& [process, worker] : running) EXPECT_EQ(worker.ExitCode(), 0U);

    const BsonDocument document = Tests::DocumentOf(home.FilePath());
    EXPECT_TRUE(wasCut || document.Find("sleep_state")->AsInt32() == kOthers);
    const BsonDocument written = document.Find(Tests::kStormDocument)->AsDocument().value();
    for (const auto& [process, worker] : running) {
      Check(notes, process, &Tests::StormWriter::begun, written);
    }
    for (const std::size_t process : dead) {
      Check(notes, process, &Tests::StormWriter::acknowledged, written);
    }
  }

  unsigned kills = 0;
  unsigned cuts = 0;       // kills inside the call that writes the file
  unsigned emptied = 0;    // times that the file was found empty
  unsigned abandoned = 0;  // times that the mutex was found abandoned
  int writes = 0;

 private:
  static constexpr std::size_t kProcesses = 12;
  static constexpr std::size_t kAtOnce = 3;
  static constexpr DWORD kLongestLife = 16;  // milliseconds
  static constexpr std::int32_t kOthers = 4711;
  static_assert(kProcesses <= Tests::kMostProcesses);

  static bool HasBegun(const Tests::StormProcess& process) {
    for (DWORD waited = 0; waited < kDeadline; ++waited) {
      if (process.writers[0].acknowledged > 0) return true;
      Sleep(1);
    }
    return false;
  }

  void LookAtFile(bool mayBeEmpty) {
    const Platform::UniqueHandle mutex(CreateMutexW(nullptr, FALSE, kMutexName));
    const DWORD code = WaitForSingleObject(mutex.get(), kDeadline);
    ASSERT_TRUE(code == WAIT_OBJECT_0 || code == WAIT_ABANDONED) << code;
    const Tests::Bytes file = Tests::ReadBytes(home.FilePath());
    ReleaseMutex(mutex.get());
    if (code == WAIT_ABANDONED) ++abandoned;
    if (file.empty()) ++emptied;
    const auto plain = Tests::PlainOf(file);
    EXPECT_TRUE(file.empty() ? mayBeEmpty : plain && BsonDocument::Decode(*plain)) << file.size();
  }

  // The store holds what the writers of `process` wrote, their value `least` or a later one.
  void Check(const Tests::SharedNotes& notes, std::size_t process,
             std::atomic<std::int32_t> Tests::StormWriter::*least, const BsonDocument& written) {
    EXPECT_EQ(notes->processes.at(process).refused, 0);
    for (std::size_t i = 0; i < Tests::kWritersOfAProcess; ++i) {
      const Tests::StormWriter& writer = notes->processes.at(process).writers.at(i);
      const auto found = written.Find(Tests::MemberOf(process, i));
      const std::int32_t value = found ? found->AsInt32().value_or(-1) : 0;
      EXPECT_GE(value, writer.*least) << "process " << process;
      EXPECT_LE(value, writer.begun) << "process " << process;
      writes += writer.acknowledged;
    }
  }

  Tests::PrivateStore home;
  unsigned storms = 0;
};

TEST_F(StoreStormTest, NoKillLosesWhatItCouldNotCut) {
  const std::uint32_t seed = Tests::Setting("VX_SEED", GetTickCount());
  std::mt19937 random(seed);
  std::printf("VX_SEED=%u\n", seed);
  while (kills < Tests::Setting("VX_KILLS", 20) && !HasFailure()) Storm(random);
  std::printf("%u kills, %u in a write, file empty %u times, mutex abandoned %u times; %d writes\n",
              kills, cuts, emptied, abandoned, writes);
}

}  // namespace

}  // namespace Vx::Tessel::Server::Storage
