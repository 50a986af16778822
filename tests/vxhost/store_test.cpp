#include "vxhost/store/store.h"

#include "hosting/text.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"
#include "storage/store_fixture.h"
#include "storage/system_mutex.h"
#include "support/faulty_files.h"
#include "support/machine_test.h"
#include "support/test.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Services::Orvane;
using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::CapDataStore;
using Tessel::Server::Storage::SystemMutex;

class StoreRepairTest : public Tests::StoreTest {
 protected:
  StoreRepairTest() {
    CapDataStore values;
    values.persist("registration_full_sent", "a secret of another service");
    values.mergeMember(kServiceDocument, kPowerSubscriptions,
                       BsonElement::Text(LR"([{"powerEventType":18}])"));
    original = Tests::ReadText(store.FilePath());
  }

  std::wstring Put(const std::string& bytes) {
    Tests::WriteText(copy, bytes);
    return copy;
  }

  static std::wstring Import(const std::wstring& own, const std::wstring& top = {}) {
    Json::WideDocument document;
    EXPECT_TRUE(Json::ParseJson(document, LR"({"document":{"OrvaneServiceDocument":{"value":{)" +
                                              own + L"}}" + top + L"}}"));
    return ImportValues(document, {});
  }

  Tests::TempFolder folder;
  std::wstring copy = folder / L"copy.dat";
  std::string original;
};

TEST_F(StoreRepairTest, NamesWhatIsWrongWithAStoreAndRestoresOnlyASoundOne) {
  const std::string header = original.substr(0, 72);
  const std::pair<std::string, std::string> cases[] = {
      {"zeroed", std::string(3000, '\0')},
      {"zeroed", std::string(40, '\0')},
      {"cut short", original.substr(0, 40)},
      {"damaged", original.substr(0, original.size() / 2)},
      {"damaged", header + "garbage"},
      {"foreign", "SQLite format 3" + std::string(200, 'x')},
      {"sound", original},
      {"sound", header},  // without values
  };
  for (const auto& [state, bytes] : cases) {
    SCOPED_TRACE(state + ", " + std::to_string(bytes.size()) + " bytes");
    EXPECT_EQ(Diagnose(LookAtFile(Put(bytes)), Owner::Any).state, state);
    Tests::WriteText(store.FilePath(), bytes);
    EXPECT_EQ(Diagnose(LookAtStore()).state, state);
    Tests::WriteText(store.FilePath(), original);
    if (bytes == original) continue;
    EXPECT_THROW(RestoreStore(copy, {}), std::runtime_error);
    EXPECT_EQ(Tests::ReadText(store.FilePath()), original);
    EXPECT_THAT(LookAtStore().siblings, IsEmpty());
  }
  {
    Tests::FaultyProtection noKey;
    noKey.Fail(0x8009000D);
    const Platform::MachineScope other(
        [&](Platform::Machine& platform) { platform.dataProtection = &noKey; });
    EXPECT_THAT(Diagnose(LookAtStore()).text, HasSubstr("sealed on another machine"));
  }
  std::filesystem::create_hard_link(store.FilePath(), folder / L"second");
  EXPECT_EQ(Diagnose(LookAtStore()).state, "linked");
  EXPECT_THROW(RestoreStore(Put(original), {}), std::runtime_error);
  std::filesystem::remove(folder / L"second");
  std::filesystem::remove(store.FilePath());
  EXPECT_EQ(Diagnose(LookAtStore()).state, "missing");
  Tests::WriteText(store.FilePath(), cases[0].second);
  CapDataStore().persist("after", "the replacement keeps the header");
  EXPECT_EQ(Diagnose(LookAtStore()).state, "sound");
}

TEST_F(StoreRepairTest, KeepsWhatItReplaces) {
  BackUpStore(copy, {});
  EXPECT_THROW(BackUpStore(copy, {}), std::runtime_error);
  for (const std::string& before : {std::string("a damaged store, longer than its header, which "
                                                "has seventy-two bytes"),
                                    original}) {
    Tests::WriteText(store.FilePath(), before);
    const std::wstring kept = RestoreStore(copy, {});
    EXPECT_EQ(Tests::ReadText(store.FilePath()), original);
    EXPECT_EQ(Tests::ReadText(kept), before);
    std::filesystem::remove(kept);
  }
  std::filesystem::remove_all(std::filesystem::path(store.FilePath()).parent_path());
  EXPECT_EQ(RestoreStore(copy, {}), L"");
  EXPECT_EQ(Tests::ReadText(store.FilePath()), original);
}

TEST_F(StoreRepairTest, LeavesTheStoreWhereItCannotBeReplaced) {
  BackUpStore(copy, {});
  // The first file created is the copy that is kept, the second one is the new store.
  for (const auto& [call, skip] : {std::pair("Files.Create", 0U),
                                   {"Files.Create", 1U},
                                   {"FileHandle.Write", 0U},
                                   {"FileHandle.Write", 1U},
                                   {"FileHandle.Flush", 1U},
                                   {"FileHandle.MoveOver", 0U}}) {
    SCOPED_TRACE(call);
    machine.faults.FailNamed(call, skip);
    EXPECT_THROW(RestoreStore(copy, {}), std::runtime_error);
    EXPECT_EQ(machine.faults.Unused(), "");
    machine.faults.Clear();
    EXPECT_EQ(Tests::ReadText(store.FilePath()), original);
    // The module would take such a file for an interrupted write and complete it.
    EXPECT_THAT(LookAtStore().siblings, Each(Not(EndsWith(L".new"))));
  }
}

// Without the lock, another process could change the store after it was copied.
TEST_F(StoreRepairTest, HoldsTheStoreThroughoutAndAnImportThatFailsHalfwayNamesTheCopy) {
  const SystemMutex ofAService(CapDataStore::kMutexName);
  BackUpStore(copy, {});
  Tests::FaultyFiles files;
  const Platform::MachineScope faulty([&](Platform::Machine& each) { each.files = &files; });
  int moves = 0;
  files.onStep = [&](const char* step) {
    const std::string name = step;
    EXPECT_FALSE(name == "Create" && Tests::IsFree(CapDataStore::kMutexName));
    return name == "MoveOver" && ++moves == 3 ? Tests::kFault : 0U;
  };
  std::filesystem::remove(RestoreStore(copy, {}));
  std::string message;
  try {
    Import(LR"("born_on_date":{"value":"1"},"ExecutedMcAfeeStub":{"value":true})");
  } catch (const std::runtime_error& error) {
    message = error.what();
  }
  EXPECT_TRUE(Tests::IsFree(CapDataStore::kMutexName, 10'000));
  const std::wstring kept = LookAtStore().siblings.at(0);
  EXPECT_THAT(message, EndsWith("; the previous store is in " + Utf8(kept)));
  EXPECT_EQ(Tests::ReadText(kept), original);
}

TEST_F(StoreRepairTest, ImportsValuesOfThisModuleOnly) {
  const wchar_t* const refused[][2] = {
      {LR"("sleep_state":{"value":1})", L""},
      {L"", LR"(,"registration_full_sent":{"value":"no"})"},
      {LR"("born_on_date":{"value":20240715})", L""},
      {LR"("PowerEventSubscriptions":{"value":"[{}"})", L""},
      {LR"("born_on_date":"20240715")", L""},
  };
  for (const auto& values : refused) {
    EXPECT_THROW(Import(values[0], values[1]), std::runtime_error);
    EXPECT_EQ(Tests::ReadText(store.FilePath()), original);
  }
  const std::wstring kept = Import(
      LR"("ZephraEventSubscriptions":{"value":"[{\"a\":1}]"},"ExecutedMcAfeeStub":{"value":true})",
      LR"(,"OrvaneLastBootTime":{"value":1721014400})");
  EXPECT_EQ(Tests::ReadText(kept), original);
  CapDataStore values;
  EXPECT_EQ(values.readInt64("OrvaneLastBootTime"), 1721014400);
  BsonElement others;
  ASSERT_TRUE(values.read("registration_full_sent", others));
  const auto subscriptions = SubscriptionsIn(DocumentOf(LookAtStore()));
  ASSERT_EQ(subscriptions.size(), 2U);
  EXPECT_EQ(subscriptions[1].text, LR"({"a":1})");
}

}  // namespace

}  // namespace Vx::Hosting::Tool
