

#include "storage/cap_data_store.h"
#include "storage/request_list.h"
#include "storage/request_manager.h"
#include "storage/store_file.h"
#include "storage/store_storm.h"
#include "storage/store_worker_process.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Storage {

namespace {

using Services::Orvane::kPowerSubscriptions;
using Services::Orvane::kServiceDocument;
using Services::Orvane::RequestManager;

TEST(StoreSharingTest, SubscribersAndFlagWritersDoNotUndoOneAnother) {
  const Tests::PrivateStore home;
  constexpr int kCount = 10;
  const auto subscribe = [](const wchar_t* subscriber) {
    for (int n = 0; n < kCount; ++n) {
      RequestManager manager(kServiceDocument, kPowerSubscriptions);
      const std::wstring request = L"{\"id\":\"" + (subscriber + std::to_wstring(n)) + L"\"}";
      manager.PersistRequest(request);
      if (n % 2 == 0) manager.RemoveRequest(request);
    }
  };
  {
    const std::jthread one(subscribe, L"a");
    const std::jthread other(subscribe, L"b");
    for (int n = 0; n < kCount; ++n) {
      CapDataStore store;
      EXPECT_TRUE(store.mergeMember(kServiceDocument, "Flag", BsonElement::Boolean(n % 2 != 0)));
    }
  }
  const std::wstring list = RequestManager(kServiceDocument, kPowerSubscriptions).StoredList();
  EXPECT_EQ(RequestsOf(list).size(), static_cast<std::size_t>(kCount));
  EXPECT_EQ(CapDataStore().readDocument(kServiceDocument).Find("Flag")->AsBoolean(), true);
}

// Processes whose threads all write one store. The test kills and replaces them one at a time.
class StoreStormTest : public testing::Test {
 protected:
  void Storm(std::mt19937& random) {
    const CapDataStore maker;
    BsonDocument kept;
    kept.Set("sleep_state", BsonElement::Int32(kOthers));
    Tests::WriteBytes(home.FilePath(), Tests::StoreFile(kept.Encoded()));

    const std::wstring name =
        L"vx-storm-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++storms);
    const Tests::SharedNotes notes(name);
    // Never killed, because it writes in place and a kill would tear the file.
    Tests::StoreWorker other(name + L" " + std::to_wstring(Tests::kOtherService));
    std::map<std::size_t, Tests::StoreWorker> running;
    std::vector<std::size_t> dead;
    for (std::size_t next = 0; next < kProcesses; ++next) {
      running.try_emplace(next, name + L" " + std::to_wstring(next));
      if (running.size() < kAtOnce) continue;
      const auto victim = std::next(running.begin(), static_cast<int>(random() % kAtOnce));
      const auto& first = notes->processes.at(victim->first).writers[0];
      ASSERT_TRUE(Tests::Eventually([&] { return first.acknowledged > 0; }, 60s));
      Sleep(random() % kLongestLife);
      victim->second.Kill();
      ++kills;
      dead.push_back(victim->first);
      running.erase(victim);
      LookAtFile();
    }
    notes->end = true;
    for (auto& [process, worker] : running) EXPECT_EQ(worker.ExitCode(), 0U);
    EXPECT_EQ(other.ExitCode(), 0U);

    const BsonDocument document = Tests::DocumentOf(home.FilePath());
    EXPECT_EQ(document.Find("sleep_state")->AsInt32(), kOthers);
    const auto& others = notes->processes.at(Tests::kOtherService).writers[0];
    EXPECT_EQ(document.Find(Tests::kOtherKey)->AsInt32(), others.acknowledged);
    othersWrites += others.acknowledged;
    abandoned += notes->abandoned;
    const BsonDocument written = document.Find(Tests::kStormDocument)->AsDocument().value();
    for (const auto& [process, worker] : running) {
      Check(notes, process, &Tests::StormWriter::begun, written);
    }
    for (const std::size_t process : dead) {
      Check(notes, process, &Tests::StormWriter::acknowledged, written);
    }
    const CapDataStore last;
    EXPECT_THAT(*Platform::WindowsMachine().files->Siblings(home.FilePath()), testing::IsEmpty());
  }

  unsigned kills = 0;
  unsigned abandoned = 0;  // times that the mutex was found abandoned
  int writes = 0;
  int othersWrites = 0;

 private:
  static constexpr std::size_t kProcesses = 12;
  static constexpr std::size_t kAtOnce = 3;
  static constexpr DWORD kLongestLife = 16;  // milliseconds
  static constexpr std::int32_t kOthers = 4711;
  static_assert(kProcesses <= Tests::kOtherService);

  void LookAtFile() {
    const Platform::UniqueHandle mutex(CreateMutexW(nullptr, FALSE, Tests::kStoreMutex));
    const DWORD code = WaitForSingleObject(mutex.get(), Tests::kWorkerDeadline);
    ASSERT_TRUE(code == WAIT_OBJECT_0 || code == WAIT_ABANDONED) << code;
    const Tests::Bytes file = Tests::ReadBytes(home.FilePath());
    ReleaseMutex(mutex.get());
    if (code == WAIT_ABANDONED) ++abandoned;
    const auto plain = Tests::PlainOf(file);
    EXPECT_TRUE(plain && BsonDocument::Decode(*plain)) << file.size() << " bytes";
  }

  // For each writer of `process`, the store must contain the value `least` or a later one.
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

TEST_F(StoreStormTest, NoKillLosesAnAcknowledgedValue) {
  const std::uint32_t seed = Tests::Setting("VX_SEED", GetTickCount());
  std::mt19937 random(seed);
  std::printf("VX_SEED=%u\n", seed);
  while (kills < Tests::Setting("VX_KILLS", 20) && !HasFailure()) Storm(random);
  EXPECT_GT(othersWrites, 0);
  std::printf("%u kills, mutex abandoned %u times; %d writes and %d of the other service\n", kills,
              abandoned, writes, othersWrites);
}

}  // namespace

}  // namespace Vx::Tessel::Server::Storage
