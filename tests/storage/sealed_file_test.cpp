// The store's file after failed or killed writes, and reads of damaged, busy or foreign files.

#include "storage/cap_data_store.h"
#include "storage/store_fixture.h"
#include "storage/store_storm.h"
#include "storage/store_worker_process.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Storage {

namespace {

using Tests::Bytes;

constexpr std::int32_t kOld = 1;
constexpr std::int32_t kNew = 2;

class SealedFileTest : public Tests::FaultyStoreTest {
 protected:
  SealedFileTest() { Plant(kOld); }

  static Bytes FileWith(std::int32_t value) {
    BsonDocument document;
    document.Set("sleep_state", BsonElement::Int32(4711));
    document.Set("key", BsonElement::Int32(value));
    if (value == kOld) document.Set("long", BsonElement::Text(std::string(3000, 'x')));
    return Tests::StoreFile(document.Encoded());
  }

  void Plant(std::int32_t value) {
    const CapDataStore maker;  // creates the folders
    Tests::WriteBytes(Path(), FileWith(value));
  }

  std::wstring Sibling(const wchar_t* name) const { return Path() + L"." + name + L".new"; }

  // Returns the value of "key", or nothing if the file has lost it or the other value.
  std::optional<std::int32_t> Value() const {
    const std::optional<BsonDocument> document = Held();
    if (!document) return std::nullopt;
    const auto others = document->Find("sleep_state");
    const auto key = document->Find("key");
    if (!others || others->AsInt32() != 4711 || !key) return std::nullopt;
    return key->AsInt32();
  }

  static Platform::UniqueHandle Hold(const std::wstring& path, DWORD share) {
    auto holder = Platform::AdoptFile(
        CreateFileW(path.c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_NE(holder, nullptr);
    return holder;
  }

  void Damage(int number) { Tests::WriteBytes(Path(), Bytes(100, static_cast<std::byte>(number))); }

  std::vector<int> Copies() const {
    std::vector<int> numbers;
    for (const std::wstring& copy : Siblings()) {
      numbers.push_back(std::to_integer<int>(Tests::ReadBytes(copy).front()));
    }
    return numbers;
  }

  static bool Write() { return CapDataStore().persist("key", BsonElement::Int32(kNew)); }
};

// The parameter states whether another process has the file open, which prevents renaming over it.
class SealedFileHeldOrNot : public SealedFileTest, public testing::WithParamInterface<bool> {
 protected:
  Platform::UniqueHandle HoldIfAsked() const {
    return GetParam() ? Hold(Path(), FILE_SHARE_READ | FILE_SHARE_WRITE) : nullptr;
  }
};
INSTANTIATE_TEST_SUITE_P(Files, SealedFileHeldOrNot, testing::Bool(),
                         [](const auto& held) { return held.param ? "Held" : "NotHeld"; });

TEST_P(SealedFileHeldOrNot, AWriteThatFailsAtAnyStepLeavesTheOldContent) {
  std::string needed;  // steps whose failure prevents the write
  for (std::size_t call = 0; !HasFailure(); ++call) {
    Plant(kOld);
    bool written = false;
    std::vector<std::string> calls;
    {
      CapDataStore store;
      const Platform::UniqueHandle holder = HoldIfAsked();
      faults.FailCall(call);
      try {
        written = store.persist("key", BsonElement::Int32(kNew));
      } catch (const system_mutex_exception&) {
        written = Value() == kNew;  // does not reveal whether the file was written
      }
      calls = faults.Calls();
      faults.Clear();
    }
    if (call >= calls.size()) {
      EXPECT_TRUE(written);
      break;
    }
    SCOPED_TRACE(calls[call]);
    EXPECT_EQ(Value(), written ? kNew : kOld);
    if (!written) needed += calls[call].substr(calls[call].find('.'));
    EXPECT_TRUE(Write());
    EXPECT_EQ(Value(), kNew);
    EXPECT_THAT(Siblings(), IsEmpty());
  }
  const std::string ofASibling =
      ".LockMutex.Open.Facts.Content.Unprotect.Protect.Create.Write.Flush";
  const std::string inPlace = ".Open.Facts.Content.SetSize.Write.Flush.SetSize.Flush";
  EXPECT_EQ(needed, GetParam() ? ofASibling + inPlace : ofASibling);
}

TEST_P(SealedFileHeldOrNot, AWriterKilledBeforeAnyStepLeavesTheOldContentOrTheNew) {
  // Keeps the kernel object, so that it stays abandoned after the writer is killed.
  const Platform::UniqueHandle mutex(CreateMutexW(nullptr, FALSE, Tests::kStoreMutex));
  int torn = 0;
  int step = 1;
  for (bool survived = false; !survived && !HasFailure(); ++step) {
    SCOPED_TRACE(step);
    Plant(kOld);
    {
      const Platform::UniqueHandle holder = HoldIfAsked();
      Tests::StoreWorker worker(L"key 2 " + std::to_wstring(step));
      const DWORD code = worker.ExitCode();
      survived = code == 0;
      EXPECT_TRUE(survived || code == Tests::kKilled) << code;
    }
    const bool whole = Held().has_value();
    if (!whole) ++torn;
    EXPECT_TRUE(whole || GetParam()) << "only a file that is written in place may be torn";
    log.Clear();
    CapDataStore store;
    EXPECT_EQ(log.Lines().empty(), whole && survived) << "a killed writer abandons the mutex";
    const auto value = Value();
    EXPECT_TRUE(value == kNew || (value == kOld && whole && !survived));
    EXPECT_THAT(Siblings(), Each(HasSubstr(L".damaged-")));  // a torn file is copied
  }
  EXPECT_GT(step, 7);
  EXPECT_EQ(torn > 0, GetParam());
}

// A host may terminate a thread. The thread's open handles then last until the process ends.
TEST_F(SealedFileTest, AThreadTerminatedBeforeAnyStepKeepsItsProcessFromNoWrite) {
  const struct {
    const char* name;
    std::function<void()> plant;
    std::size_t kept;  // copies of the damaged file
  } kStores[] = {
      {"sound", [&] { Plant(kOld); }, 0},
      {"empty", [&] { Tests::WriteBytes(Path(), {}); }, 0},
      {"damaged", [&] { Tests::WriteBytes(Path(), Bytes(500, std::byte{1})); }, 1},
  };
  for (const auto& c : kStores) {
    int step = 1;
    for (bool survived = false; !survived && !HasFailure(); ++step) {
      SCOPED_TRACE(testing::Message() << c.name << ", step " << step);
      c.plant();
      Tests::StoreWorker worker(L"key 2 " + std::to_wstring(step) + L" later");
      const DWORD code = worker.ExitCode();
      survived = code == 0;
      EXPECT_TRUE(survived || code == Tests::kKilled) << code;
      const std::optional<BsonDocument> held = Held();
      ASSERT_TRUE(held && held->Find("later"));
      const auto key = held->Find("key");
      EXPECT_TRUE(key ? key->AsInt32() == kNew || (c.name == kStores[0].name && !survived)
                      : c.name != kStores[0].name && !survived);
      const CapDataStore next;
      EXPECT_THAT(Siblings(), Each(HasSubstr(L".damaged-")));
      EXPECT_GE(Siblings().size(), c.kept);
      for (const std::wstring& copy : Siblings()) ::DeleteFileW(copy.c_str());
    }
    EXPECT_GT(step, 7);
  }
}

TEST_F(SealedFileTest, AFileThatAnotherProcessKeepsToItselfIsNotReplaced) {
  const std::pair<DWORD, const wchar_t*> kCases[] = {
      {FILE_SHARE_WRITE | FILE_SHARE_DELETE, L"the file could not be opened, error 0x20"},
      {FILE_SHARE_READ, L"the file was not written, error 0x20"},
  };
  for (const auto& [share, line] : kCases) {
    const Platform::UniqueHandle holder = Hold(Path(), share);
    EXPECT_FALSE(Write());
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(line)));
  }
  EXPECT_EQ(Value(), kOld);
  EXPECT_THAT(Siblings(), IsEmpty());
}

TEST_F(SealedFileTest, AFailureThatPassesIsTriedAgainForAQuarterOfASecond) {
  static const struct {
    const char* name;
    const char* step;
    Platform::ErrorCode error;
    int failures;
    bool passes;  // the read succeeds, or the write avoids writing in place
  } kCases[] = {
      {"file in use", "Open", 32, 10, true},
      {"file in use for longer", "Open", 32, 11, false},
      {"out of memory", "Open", 8, 1, true},
      {"data protection unavailable", "Unprotect", 1722, 10, true},
      {"data protection stays unavailable", "Unprotect", 1722, 11, false},
      {"keys during start-up", "Unprotect", 0x8009000B, 10, true},
      {"another error", "Open", 1117, 1, false},
      {"a scanner uses it", "MoveOver", 32, 10, true},
      {"a scanner denies access", "MoveOver", 5, 10, true},
      {"access is denied for longer", "MoveOver", 5, 11, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Plant(kOld);
    CapDataStore store;
    bool inPlace = false;
    disk.onStep = [&, left = c.failures](const std::string& step) mutable {
      inPlace |= step == "SetSize";
      return step == c.step && left-- > 0 ? c.error : 0U;
    };
    if (c.step == std::string("Unprotect")) protection.Fail(c.error, c.failures);
    const auto begin = clock.Elapsed();
    BsonElement element;
    if (c.step == std::string("MoveOver")) {
      EXPECT_TRUE(store.persist("key", BsonElement::Int32(kNew)));
      EXPECT_EQ(Value(), kNew);
      EXPECT_EQ(inPlace, !c.passes);
    } else {
      EXPECT_EQ(store.read("key", element), c.passes);
    }
    EXPECT_LE(clock.Elapsed() - begin, 250ms);
    disk.onStep = [](const std::string&) { return 0U; };
    protection.Fail(0);
  }
}

TEST_F(SealedFileTest, OnlyWhatIsProvedDamagedIsReplacedAndACopyIsKept) {
  static const struct {
    const char* name = nullptr;
    Platform::ErrorCode error = 0;
    const wchar_t* line = nullptr;
    bool replaced = false;
    bool protectionWorks = true;  // for other blobs
  } kCases[] = {
      {"invalid blob", 13, L"the file is damaged, error 0xd", true},
      {"altered blob", 0x80090005, L"the file is damaged, error 0x80090005", true},
      {"key of another machine", 0x8009000B,
       L"the file was sealed on another machine, error 0x8009000b", true},
      {"keys not there yet", 0x8009000B, L"the file could not be opened, error 0x8009000b", false,
       false},
      {"bad parameter", 87, L"the file is damaged, error 0x57", true},
      {"bad parameter for every blob", 87, L"the file could not be opened, error 0x57", false,
       false},
      {"permanently out of memory", 8, L"the file could not be opened, error 0x8", false},
      {"data protection off", 1062, L"the file could not be opened, error 0x426", false},
      {"an error from a later Windows", 0x80090999,
       L"the file could not be opened, error 0x80090999", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Plant(kOld);
    const Bytes before = Tests::ReadBytes(Path());
    protection.Fail(c.error, -1, c.protectionWorks ? 1000 : 0);
    log.Clear();
    clock.SetUtcFileTime(133'646'439'030'420'000);
    EXPECT_EQ(Write(), c.replaced);
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(c.line)).Times(1));
    protection.Fail(0);
    if (c.replaced) {
      ASSERT_EQ(Siblings().size(), 1U);
      // The time of the read, or 250 ms later after waiting for keys.
      EXPECT_THAT(Siblings().front(),
                  AnyOf(HasSubstr(L"shared_store.dat.damaged-20240705-090503-042."),
                        HasSubstr(L"shared_store.dat.damaged-20240705-090503-292.")));
      EXPECT_EQ(Tests::ReadBytes(Siblings().front()), before);
      ASSERT_TRUE(::DeleteFileW(Siblings().front().c_str()));
    } else {
      EXPECT_EQ(Tests::ReadBytes(Path()), before);
      EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"is not replaced")));
    }
    EXPECT_THAT(Siblings(), IsEmpty());
  }
}

TEST_F(SealedFileTest, KeysThatComeAtTheLastTryLoseNothing) {
  for (const Platform::ErrorCode error : {0x8009000BU, 87U}) {
    Plant(kOld);
    protection.Fail(error, 13);  // 12 tries while opening, which does not write, and one more
    EXPECT_TRUE(Write());
    EXPECT_EQ(Value(), kNew) << error;
    EXPECT_THAT(Siblings(), IsEmpty());
  }
}

TEST_F(SealedFileTest, KeepsTheLastThreeDifferentCopiesAndNothingWithoutOne) {
  for (int i = 1; i <= 5; ++i) {
    // The clock is set back each time, so that the dates in the names decrease.
    clock.SetUtcFileTime((100 - static_cast<std::uint64_t>(i)) * 10'000'000);
    Damage(i);
    disk.onStep = [](const std::string& step) { return step == "MoveOver" ? Tests::kFault : 0U; };
    EXPECT_FALSE(Write()) << "the copy succeeds, and the write fails";
    disk.onStep = [](const std::string&) { return 0U; };
    EXPECT_TRUE(Write());
  }
  EXPECT_THAT(Copies(), UnorderedElementsAre(3, 4, 5));
  Damage(9);
  disk.onStep = [](const std::string& step) { return step == "Create" ? Tests::kFault : 0U; };
  EXPECT_FALSE(Write());
  EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"the damaged file is not replaced: it cannot be "
                                              L"copied, error 0x45d")));
  EXPECT_EQ(Tests::ReadBytes(Path()), Bytes(100, std::byte{9}));
}

TEST_F(SealedFileTest, CopiesThatAnotherProcessHoldsGoAfterALaterDamage) {
  std::vector<Platform::UniqueHandle> holders;
  for (int i = 1; i <= 7; ++i) {
    Damage(i);
    EXPECT_TRUE(Write());
    if (i != 3) continue;
    for (const std::wstring& copy : Siblings()) holders.push_back(Hold(copy, 0));
  }
  EXPECT_EQ(Siblings().size(), 6U) << "those held, and the last three";
  holders.clear();
  Damage(7);  // identical to the last copy
  EXPECT_TRUE(Write());
  EXPECT_THAT(Copies(), UnorderedElementsAre(5, 6, 7));
}

TEST_F(SealedFileTest, ACopyIsNotNumberedAnewWhileItsForerunnersCannotBeListed) {
  for (int i = 1; i <= 5; ++i) {
    Damage(i);
    if (i == 4) {
      Tests::WriteBytes(Sibling(L"a"), Bytes(10));
      disk.onStep = [&, reads = 0](const std::string& step) mutable {
        // Fails after the siblings are listed but before the copies are.
        if (step == "Content" && ++reads == 4) faults.FailNamed("Files.Siblings");
        return 0U;
      };
      EXPECT_FALSE(Write());
      disk.onStep = [](const std::string&) { return 0U; };
      faults.Clear();
    }
    EXPECT_TRUE(Write());
  }
  { const CapDataStore store; }  // deletes the sibling
  EXPECT_THAT(Copies(), UnorderedElementsAre(3, 4, 5));
}

TEST_F(SealedFileTest, AFileThatHasASecondNameOrIsTooLargeIsNotReplaced) {
  CapDataStore store;
  const std::wstring second = Path() + L".second";
  ASSERT_TRUE(CreateHardLinkW(second.c_str(), Path().c_str(), nullptr));
  EXPECT_FALSE(store.persist("key", BsonElement::Int32(kNew)));
  EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"is a link or has a second name")));
  EXPECT_THROW(CapDataStore(), std::runtime_error);
  ASSERT_TRUE(::DeleteFileW(second.c_str()));
  EXPECT_EQ(Value(), kOld);

  Bytes large = Tests::ReadBytes(Path());
  large.resize((std::size_t{64} << 20) + 1);
  Tests::WriteBytes(Path(), large);
  EXPECT_FALSE(Write());
  EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"the file is too large")));
  EXPECT_EQ(disk.largestRead, std::size_t{64} << 20);
  EXPECT_EQ(Tests::ReadBytes(Path()).size(), large.size());
}

TEST_F(SealedFileTest, AStoreThatWasResetToItsHeaderAdoptsOnlyASiblingWithItsId) {
  for (const bool same : {false, true}) {
    const Bytes stale = FileWith(kNew);
    Bytes header(stale.begin(), stale.begin() + Tests::kHeaderSize);
    if (!same) header.front() = std::byte{'f'};
    Tests::WriteBytes(Path(), header);
    Tests::WriteBytes(Sibling(L"a"), stale);
    EXPECT_TRUE(CapDataStore().persist("other", true));
    EXPECT_EQ(Value(), same ? std::optional(kNew) : std::nullopt);
    EXPECT_EQ(Tests::IdOf(Tests::ReadBytes(Path())), Tests::IdOf(header));
    const CapDataStore next;
    EXPECT_THAT(Siblings(), IsEmpty());
  }
}

// After an interrupted write, the file is as given and one of two siblings contains the new value.
TEST_F(SealedFileTest, AStoreWithoutContentGivesWayToTheSiblingOfAnInterruptedWrite) {
  const std::function<void()> kStores[] = {
      [&] { ::DeleteFileW(Path().c_str()); },
      [&] { Tests::WriteBytes(Path(), {}); },
      [&] { Tests::WriteBytes(Path(), Bytes(500, std::byte{1})); },
  };
  for (std::size_t i = 0; i < std::size(kStores); ++i) {
    for (const bool held : {false, true}) {
      SCOPED_TRACE(testing::Message() << "store " << i << (held ? ", held" : ""));
      kStores[i]();
      Tests::WriteBytes(Sibling(L"a"), FileWith(kNew));
      Tests::WriteBytes(Sibling(held ? L"0" : L"b"), FileWith(kOld));
      disk.onFacts = [](Platform::FileFacts& facts) { facts.written = facts.size > 3000 ? 1 : 2; };
      std::string change;  // the last step that changed a file
      disk.onStep = [&](const std::string& step) {
        if (step != "Open" && step != "Content" && step != "Remove") change = step;
        return 0U;
      };
      log.Clear();
      const bool open = held && i != 0;  // the first case has no file
      const auto holder = open ? Hold(Path(), FILE_SHARE_READ | FILE_SHARE_WRITE) : nullptr;
      const CapDataStore store;
      EXPECT_EQ(Value(), kNew);
      EXPECT_EQ(change, "Flush");
      EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"completed an interrupted write from")));
      EXPECT_THAT(Siblings(), Not(Contains(testing::EndsWith(L".new"))));
      EXPECT_EQ(Siblings().size(), i == 2 ? 1U : 0U) << "the copy of what was damaged";
    }
  }
}

TEST_F(SealedFileTest, AWriteInPlaceThatCannotBeUndoneNamesTheSiblingThatCompletesIt) {
  CapDataStore store;
  const Platform::UniqueHandle holder = Hold(Path(), FILE_SHARE_READ | FILE_SHARE_WRITE);
  // Writing the new content fails halfway, and writing the old content back fails too.
  disk.onStep = [inPlace = false, writes = 0](const std::string& step) mutable {
    inPlace |= step == "SetSize";
    const bool isWrite = inPlace && (step == "Write" || step == "Half");
    return isWrite && writes++ > 0 ? Tests::kFault : 0U;
  };
  EXPECT_FALSE(store.persist("key", BsonElement::Int32(kNew)));
  disk.onStep = [](const std::string&) { return 0U; };
  EXPECT_EQ(Held(), std::nullopt);
  ASSERT_EQ(Siblings().size(), 1U);
  EXPECT_THAT(log.Lines(),
              Contains(L"warning|CapDataStore - the file is torn, error 0x45d. The next access "
                       L"completes it from " +
                       Siblings().front()));
  EXPECT_EQ(store.requireInt32("key"), kNew);
  EXPECT_EQ(Value(), kNew);
}

TEST_F(SealedFileTest, ASiblingIsAdoptedOnlyIfItDecodesAndIsTheSystemsOwn) {
  const std::wstring sibling = Sibling(L"a");
  const Bytes good = FileWith(kNew);
  const std::pair<const char*, std::function<void()>> kCases[] = {
      {"half written",
       [&] { Tests::WriteBytes(sibling, Bytes(good.begin(), good.begin() + 200)); }},
      {"second name of another file",
       [&] {
         const std::wstring other = Path() + L".other";
         Tests::WriteBytes(other, good);
         EXPECT_TRUE(CreateHardLinkW(sibling.c_str(), other.c_str(), nullptr));
       }},
      {"link",
       [&] {
         Tests::WriteBytes(sibling, good);
         disk.onFacts = [&good](Platform::FileFacts& facts) {
           if (facts.size == good.size()) facts.attributes |= Tests::kReparsePoint;
         };
       }},
      {"owned by another account",
       [&] {
         Tests::WriteBytes(sibling, good);
         disk.foreignOwner = true;
       }},
      {"too large",
       [&] {
         Bytes large = good;
         large.resize((std::size_t{64} << 20) + 1);
         Tests::WriteBytes(sibling, large);
       }},
  };
  for (const auto& [name, make] : kCases) {
    SCOPED_TRACE(name);
    Tests::WriteBytes(Path(), {});
    make();
    EXPECT_TRUE(CapDataStore().persist("other", true)) << "the sibling blocks a write";
    EXPECT_TRUE(Held() && Held()->Size() == 1);
    disk.foreignOwner = false;
    disk.onFacts = [](Platform::FileFacts&) {};
    for (const std::wstring& left : Siblings()) ::DeleteFileW(left.c_str());
  }
}

TEST_F(SealedFileTest, ASiblingThatCannotBeListedNowIsNotGivenUp) {
  Tests::WriteBytes(Path(), Bytes(500, std::byte{1}));
  Tests::WriteBytes(Sibling(L"a"), FileWith(kNew));
  faults.FailNamed("Files.Siblings");
  EXPECT_FALSE(CapDataStore().persist("other", BsonElement::Int32(3)));
  faults.Clear();
  { const CapDataStore store; }
  EXPECT_EQ(Value(), kNew);
}

TEST_F(SealedFileTest, ASiblingThatCannotBeOpenedStopsNoWrite) {
  Tests::WriteBytes(Path(), {});
  ASSERT_TRUE(CreateDirectoryW(Sibling(L"b").c_str(), nullptr));
  EXPECT_TRUE(Write());
  EXPECT_TRUE(RemoveDirectoryW(Sibling(L"b").c_str()));
  // Windows returns these for a path that is too long, although the folder's listing includes it.
  for (const Platform::ErrorCode error : {3U, 206U}) {
    Tests::WriteBytes(Path(), {});
    Tests::WriteBytes(Sibling(L"a"), {});
    CapDataStore store;
    disk.onStep = [error, opens = 0](const std::string& step) mutable {
      return step == "Open" && ++opens == 2 ? error : 0U;  // the first opens the store
    };
    EXPECT_TRUE(store.persist("key", BsonElement::Int32(kNew))) << error;
    disk.onStep = [](const std::string&) { return 0U; };
  }
}

TEST_F(SealedFileTest, AnAccessOpensItsNewestSiblingsAndNoMoreWhateverOthersPutBesideThem) {
  disk.foreignMark = L".foreign-";
  for (int i = 0; i < 80; ++i) {
    const bool foreign = i >= 60;
    const std::wstring sibling =
        Sibling(((foreign ? L"foreign-" : L"") + std::to_wstring(i)).c_str());
    Tests::WriteBytes(sibling, FileWith(i == 30 ? kNew : kOld));
    if (i != 30 && !foreign) continue;
    const std::filesystem::path newest(sibling);
    last_write_time(newest, last_write_time(newest) + std::chrono::hours(foreign ? 2 : 1));
  }
  Tests::WriteBytes(Path(), {});
  int opened = 0;
  disk.onStep = [&](const std::string& step) {
    if (step == "Open") ++opened;
    return 0U;
  };
  { const CapDataStore store; }
  EXPECT_EQ(Value(), kNew);
  EXPECT_LE(opened, 2 * (20 + 3 * 16) + 4) << "opens to adopt one sibling and to delete the others";
  for (int i = 0; i < 3; ++i) const CapDataStore store;
  EXPECT_THAT(Siblings(), SizeIs(20));
}

TEST_F(SealedFileTest, AStoreThatDecodesWinsAndItsOwnSiblingsGo) {
  Tests::WriteBytes(Sibling(L"a"), FileWith(kNew));
  Tests::WriteBytes(Path() + L".someone's.txt", {});
  { const CapDataStore store; }
  EXPECT_EQ(Value(), kOld);
  EXPECT_THAT(Siblings(), ElementsAre(Path() + L".someone's.txt"));

  Tests::WriteBytes(Sibling(L"b"), FileWith(kNew));
  disk.foreignOwner = true;
  { const CapDataStore store; }
  EXPECT_THAT(Siblings(), Contains(Sibling(L"b")));
}

TEST_F(SealedFileTest, ASiblingThatCannotBeReadNowIsNotGivenUp) {
  Tests::WriteBytes(Path(), {});
  Tests::WriteBytes(Sibling(L"a"), FileWith(kNew));
  {
    const Platform::UniqueHandle holder = Hold(Sibling(L"a"), FILE_SHARE_WRITE);
    EXPECT_FALSE(Write());
    disk.foreignOwner = true;
    EXPECT_TRUE(CapDataStore().persist("other", true)) << "another account can block the store";
    disk.foreignOwner = false;
    Tests::WriteBytes(Path(), {});
  }
  EXPECT_TRUE(Write());
  EXPECT_EQ(Value(), kNew);
  EXPECT_EQ(Held()->Size(), 2U);
}

TEST_F(SealedFileTest, AScannerDelaysTheAdoptionOfASibling) {
  const Bytes torn(500, std::byte{1});
  for (const bool passes : {true, false}) {
    SCOPED_TRACE(passes);
    Tests::WriteBytes(Path(), torn);
    Tests::WriteBytes(Sibling(L"a"), FileWith(kNew));
    Platform::UniqueHandle scanner = Hold(Sibling(L"a"), FILE_SHARE_WRITE);
    // Opens the store once, and the sibling once for its owner and twice per try.
    disk.onStep = [&, opens = 0](const std::string& step) mutable {
      if (step == "Open" && ++opens == 23 && passes) scanner.reset();
      return 0U;
    };
    const auto begin = clock.Elapsed();
    EXPECT_EQ(CapDataStore().persist("other", true), passes);
    EXPECT_EQ(clock.Elapsed() - begin, std::chrono::milliseconds(250));
    if (!passes) {
      EXPECT_EQ(Tests::ReadBytes(Path()), torn);
      scanner.reset();
      const CapDataStore store;
    }
    EXPECT_EQ(Value(), kNew);
    disk.onStep = [](const std::string&) { return 0U; };
  }
}

TEST_F(SealedFileTest, AFileThatWasCutShortIsReported) {
  const auto lines = [&](std::uint64_t written) {
    disk.onFacts = [written](Platform::FileFacts& facts) {
      facts.created = 5;
      facts.written = written;
    };
    log.Clear();
    const CapDataStore store;
    return log.Lines();
  };
  const std::wstring warning =
      L"warning|CapDataStore - the file is shorter than its header and not new";
  Tests::WriteBytes(Path(), {});
  EXPECT_THAT(lines(5), IsEmpty());
  EXPECT_THAT(lines(6), ElementsAre(warning));
  Tests::WriteBytes(Path(), Bytes(71, std::byte{1}));
  EXPECT_THAT(lines(5), ElementsAre(warning));
  Tests::WriteBytes(Path(), Bytes(72, std::byte{1}));
  EXPECT_THAT(lines(6), IsEmpty());
}

}  // namespace

}  // namespace Vx::Tessel::Server::Storage
