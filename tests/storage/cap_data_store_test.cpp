#include "storage/cap_data_store.h"

#include <regex>

#include "support/test.h"

#include <rpc.h>
#include <wincrypt.h>

#include "storage/store_fixture.h"

// This program's import of the ID generator, the only step of a write that no capability covers.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's name
extern "C" RPC_STATUS(RPC_ENTRY* __imp_UuidCreate)(UUID*);

namespace Vx::Tessel::Server::Storage {

namespace {

using namespace std::string_literals;
using Tests::Bytes;

constexpr wchar_t kPersistWarning[] =
    L"warning|CapDataStore::persist - failed to read current content.";
constexpr wchar_t kReadError[] = L"error|CapDataStore::read - File read error";

Bytes Encoded(const BsonDocument& document) {
  return {document.Encoded().begin(), document.Encoded().end()};
}

BsonDocument WithInt(const char* key, std::int32_t value) {
  BsonDocument document;
  document.Set(key, BsonElement::Int32(value));
  return document;
}

std::optional<BsonElement> Read(CapDataStore& store, std::string_view key) {
  BsonElement element;
  if (!store.read(key, element)) return std::nullopt;
  return element;
}

void MakeStore() {
  const CapDataStore store;
}

using CapDataStoreTest = Tests::FaultyStoreTest;

TEST_F(CapDataStoreTest, WritesAnIdAndABlobThatHoldsPlainBsonInOneCall) {
  CapDataStore store;
  ASSERT_TRUE(store.persist("ab", "c\303\251"));
  Bytes file = Tests::ReadBytes(Path());
  EXPECT_EQ(disk.writes, std::vector<Bytes>{file});

  const std::wstring id = Tests::IdOf(file);
  const std::wregex form(L"[0-9a-fA-F]{8}(-[0-9a-fA-F]{4}){3}-[0-9a-fA-F]{12}");
  EXPECT_TRUE(std::regex_match(id, form)) << testing::PrintToString(id);

  // Decrypted without entropy and without a prompt. The description names the file.
  DATA_BLOB sealed{static_cast<DWORD>(file.size() - Tests::kHeaderSize),
                   reinterpret_cast<BYTE*>(file.data() + Tests::kHeaderSize)};
  DATA_BLOB plain{};
  wchar_t* description = nullptr;
  ASSERT_TRUE(CryptUnprotectData(&sealed, &description, nullptr, nullptr, nullptr,
                                 CRYPTPROTECT_LOCAL_MACHINE, &plain));
  EXPECT_EQ(std::wstring(description), Path());
  const std::string bytes(reinterpret_cast<const char*>(plain.pbData), plain.cbData);
  EXPECT_EQ(bytes, "\021\0\0\0\002ab\0\004\0\0\0c\303\251\0\0"s);
  LocalFree(description);
  LocalFree(plain.pbData);
}

TEST_F(CapDataStoreTest, StoresEachOverloadAsItsKindAndReadsItBack) {
  CapDataStore store;
  ASSERT_TRUE(store.persist("text", "t"));
  ASSERT_TRUE(store.persist("flag", true));
  ASSERT_TRUE(store.persist("int32", BsonElement::Int32(-7)));
  ASSERT_TRUE(store.persist("int64", BsonElement::Int64(std::int64_t{1} << 40)));
  ASSERT_TRUE(store.persist("document", BsonElement(WithInt("x", 1))));
  CapDataStore other;
  EXPECT_EQ(Read(other, "text"), BsonElement::Text(L"t"));
  EXPECT_TRUE(other.readBool("flag", false));
  EXPECT_TRUE(other.readBool("absent", true));
  EXPECT_FALSE(other.readBool("int32", false));
  EXPECT_EQ(other.readInt64("int64"), std::int64_t{1} << 40);
  EXPECT_EQ(other.readDocument("document"), WithInt("x", 1));
  EXPECT_TRUE(other.readDocument("flag").Empty());
  EXPECT_EQ(other.requireInt32("int32"), -7);
  EXPECT_EQ(other.requireInt32("absent"), 0);
}

TEST_F(CapDataStoreTest, WritesAlsoAValueThatTheFileHoldsAlready) {
  CapDataStore store;
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(store.persist("key", "value"));
    EXPECT_TRUE(store.mergeMember("document", "member", BsonElement::Int32(1)));
  }
  EXPECT_EQ(disk.writes.size(), 4U);
}

TEST_F(CapDataStoreTest, WritesOntoWhatOthersWroteSince) {
  CapDataStore store;
  ASSERT_TRUE(store.persist("key", "value"));
  ASSERT_TRUE(CapDataStore().persist("key", "another"));
  EXPECT_TRUE(store.persist("other", true));
  EXPECT_EQ(Read(store, "key"), BsonElement::Text(L"another"));
}

// Returns `bytes` damaged as by a disk fault, a torn write or another program.
Bytes Damaged(Bytes bytes, const Bytes& others, std::mt19937& random) {
  if (bytes.empty()) return others;
  const auto at = static_cast<std::ptrdiff_t>(random() % bytes.size());
  switch (random() % 5) {
    case 0:  // truncated
      bytes.resize(static_cast<std::size_t>(at));
      break;
    case 1:  // flipped bits
      for (unsigned flips = 1 + random() % 3; flips != 0; --flips) {
        bytes[random() % bytes.size()] ^= std::byte{1} << random() % 8;
      }
      break;
    case 2:  // continues like another file
      bytes.resize(static_cast<std::size_t>(at));
      if (static_cast<std::size_t>(at) < others.size()) {
        bytes.insert(bytes.end(), others.begin() + at, others.end());
      }
      break;
    case 3:  // a part is missing
      bytes.erase(bytes.begin() + at,
                  bytes.begin() + at +
                      static_cast<std::ptrdiff_t>(
                          random() % (bytes.size() - static_cast<std::size_t>(at) + 1)));
      break;
    default:  // the beginning of another file is inserted
      bytes.insert(bytes.begin() + at, others.begin(),
                   others.begin() + static_cast<std::ptrdiff_t>(random() % (others.size() + 1)));
  }
  return bytes;
}

class DamagedStoreTest : public CapDataStoreTest {
 protected:
  DamagedStoreTest() {
    const CapDataStore maker;
    BsonDocument ours = WithInt("Flag", 1);
    ours.Set("PowerEventSubscriptions", BsonElement::Text("[{\"n\":1}]"));
    BsonDocument theirs = WithInt("old", 1);
    theirs.Set(kOwn, BsonElement(ours));
    theirs.Set("id", BsonElement(BsonView(BsonKind::ObjectId, Bytes(12, std::byte{7}))));
    BsonDocument foreign = WithInt(kOwn, 5);  // a kind that this service never writes
    foreign.Set("old", BsonElement::Text("text"));
    for (const BsonDocument& document : {theirs, foreign, WithInt("other", 2), BsonDocument()}) {
      plain.push_back(Encoded(document));
      files.push_back(Tests::StoreFile(plain.back()));
    }
    plain.push_back(Tests::ReadBytes(Tests::BuiltFile(L"corpus\\bson\\every_kind")));
    files.push_back(Tests::StoreFile(plain.back()));
    plain.push_back(Bytes(100, std::byte{0x41}));  // not a document
    files.push_back(plain.back());                 // not a store file
  }

  // Returns an empty store if `n` is at most kHeaderSize, otherwise a damaged file or document.
  Bytes OddFile(std::uint32_t n, std::mt19937& random) {
    if (n <= Tests::kHeaderSize) return {files[0].begin(), files[0].begin() + n};
    const std::size_t one = random() % files.size();
    const std::size_t other = random() % files.size();
    return random() % 3 == 0 ? Tests::StoreFile(Damaged(plain[one], plain[other], random))
                             : Damaged(files[one], files[other], random);
  }

  void Check(const std::optional<BsonDocument>& held, bool writable) {
    CapDataStore store;
    log.Clear();
    BsonElement element;
    EXPECT_EQ(store.read("old", element), held && held->Find("old"));
    EXPECT_EQ(FirstLine(), held ? L"" : kReadError);

    log.Clear();
    EXPECT_EQ(store.mergeMember(kOwn, "Flag", BsonElement::Boolean(true)), writable)
        << testing::PrintToString(log.Lines());
    const bool broken = held && OwnIsBroken(*held);
    EXPECT_EQ(FirstLine(), broken ? L"warning|CapDataStore - the file is damaged, error 0x0"
                           : held ? L""
                                  : kPersistWarning);
  }

  void CheckWritten(BsonDocument expected) {
    const auto own = expected.Find(kOwn);
    BsonDocument members = own ? own->AsDocument().value_or(BsonDocument()) : BsonDocument();
    members.Set("Flag", BsonElement::Boolean(true));
    expected.Set(kOwn, BsonElement(members));
    EXPECT_EQ(Tests::DocumentOf(Path()), expected);
  }

  // If the file or this service's document is unreadable, the last copy must have the file's
  // content.
  void CheckCopies(const std::optional<BsonDocument>& held, const Bytes& file) {
    std::vector<std::wstring> copies = Siblings();
    EXPECT_LE(copies.size(), 3U);
    if (held && !OwnIsBroken(*held)) return;
    std::sort(copies.begin(), copies.end());
    EXPECT_TRUE(!copies.empty() && Tests::ReadBytes(copies.back()) == file);
  }

  static constexpr char kOwn[] = "OrvaneServiceDocument";

 private:
  static bool OwnIsBroken(const BsonDocument& document) {
    const auto own = document.Find(kOwn);
    return own && !own->AsDocument();
  }

  std::wstring FirstLine() const {
    const std::vector<std::wstring> lines = log.Lines();
    return lines.empty() ? std::wstring() : lines.front();
  }

  std::vector<Bytes> plain;
  std::vector<Bytes> files;
};

TEST_F(DamagedStoreTest, LosesNothingThatCanBeReadAndKeepsACopyOfTheRest) {
  const std::uint32_t seed = Tests::Setting("VX_SEED", 20240731);
  std::mt19937 random(seed);
  std::size_t unreadable = 0;
  const std::uint32_t count = Tests::Setting("VX_DAMAGES", 500);
  for (std::uint32_t n = 0; n < count && !HasFailure(); ++n) {
    SCOPED_TRACE(testing::Message() << "VX_SEED=" << seed << ", damage " << n);
    clock.Advance(std::chrono::milliseconds(1));
    const Bytes file = OddFile(n, random);
    Tests::WriteBytes(Path(), file);
    const auto held = Tests::HeldBy(file);
    if (!held) ++unreadable;
    Check(held, true);
    CheckWritten(held.value_or(BsonDocument()));
    CheckCopies(held, file);
    if (file.size() >= Tests::kHeaderSize) {
      EXPECT_EQ(Tests::IdOf(Tests::ReadBytes(Path())), Tests::IdOf(file));
    }
  }
  std::printf("%u damages, %zu unreadable\n", count, unreadable);
  EXPECT_GT(unreadable, count / 4);
}

TEST_F(DamagedStoreTest, AFolderInItsPlaceIsNeitherReadNorWritten) {
  ASSERT_TRUE(::DeleteFileW(Path().c_str()));
  ASSERT_TRUE(CreateDirectoryW(Path().c_str(), nullptr));
  Check(std::nullopt, false);
  EXPECT_THROW(CapDataStore().requireInt32("old"), std::runtime_error);
  EXPECT_NE(GetFileAttributesW(Path().c_str()) & FILE_ATTRIBUTE_DIRECTORY, 0U);
}

TEST_F(CapDataStoreTest, AMarkReplacesADamagedFileButNeitherADocumentNorWhatCannotBeRead) {
  CapDataStore store;
  EXPECT_TRUE(store.persistUnlessDocument("key", true));
  ASSERT_TRUE(store.mergeMember("document", "member", BsonElement::Int32(1)));
  EXPECT_FALSE(store.persistUnlessDocument("document", true));
  EXPECT_EQ(store.readDocument("document"), WithInt("member", 1));

  const Bytes sound = Tests::ReadBytes(Path());
  faults.FailNamed("Files.Open");
  EXPECT_FALSE(CapDataStore().persistUnlessDocument("key", false));
  faults.Clear();
  EXPECT_EQ(Tests::ReadBytes(Path()), sound);
  Tests::WriteBytes(Path(), Bytes(100, std::byte{1}));
  EXPECT_TRUE(CapDataStore().persistUnlessDocument("key", true));
  EXPECT_TRUE(CapDataStore().readBool("key", false));
}

TEST_F(CapDataStoreTest, ANewFolderIsPrivateAndAnExistingOneKeepsItsEntries) {
  const std::wstring folder = Path().substr(0, Path().find_last_of(L'\\'));
  const auto isOpenToUsers = [&] {
    const auto access = disk.FolderAccess(folder);
    EXPECT_TRUE(access);
    return access && std::ranges::any_of(access->entries, [](const Platform::AccessEntry& entry) {
             return entry.allowed && entry.sid == L"S-1-1-0";
           });
  };
  { const CapDataStore store; }
  EXPECT_FALSE(isOpenToUsers());
  ASSERT_TRUE(::DeleteFileW(Path().c_str()));
  ASSERT_TRUE(RemoveDirectoryW(folder.c_str()));
  ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
  { const CapDataStore store; }
  EXPECT_TRUE(isOpenToUsers());
}

TEST_F(CapDataStoreTest, AValueThatDoesNotFitLeavesTheFileAndALine) {
  CapDataStore store;
  ASSERT_TRUE(store.persist("small", "s"));
  EXPECT_FALSE(store.persist("large", std::string(std::size_t{64} * 1024 * 1024, 'x')));
  EXPECT_FALSE(store.persist("with\0zero"s, true));
  EXPECT_EQ(log.Lines(), (std::vector<std::wstring>{
                             L"warning|CapDataStore - the file was not written, error 0xdf",
                             L"warning|CapDataStore - the value does not fit into the document"}));
  EXPECT_EQ(Read(store, "small"), BsonElement::Text(L"s"));
}

RPC_STATUS RPC_ENTRY NoId(UUID*) {
  return RPC_S_OUT_OF_MEMORY;
}

TEST_F(CapDataStoreTest, WithoutAnIdTheFileStaysAsItIsUntilWindowsMakesOne) {
  CapDataStore store;
  for (const wchar_t* line : {L"warning|CapDataStore - no id could be made for the file, error 0xe",
                              L"warning|CapDataStore - the file was not written, error 0xe"}) {
    const Bytes before = Tests::ReadBytes(Path());
    log.Clear();
    {
      const Tests::ImportOverride noIds(__imp_UuidCreate, &NoId);
      EXPECT_FALSE(store.persist("key", true));
    }
    EXPECT_EQ(log.Lines(), std::vector<std::wstring>{line});
    EXPECT_EQ(Tests::ReadBytes(Path()), before);
    EXPECT_TRUE(store.persist("key", true));
  }
}

TEST_F(CapDataStoreTest, RefusesAJunctionAtEveryStep) {
  CapDataStore store;
  ASSERT_TRUE(store.persist("key", "value"));
  ASSERT_TRUE(::DeleteFileW(Path().c_str()));
  Tests::TempFolder target;
  {
    const Tests::DirectoryLink link(Path(), target.Path().wstring());
    EXPECT_EQ(Read(store, "key"), std::nullopt);
    EXPECT_TRUE(log.Has(kReadError));
    EXPECT_THAT(
        MakeStore,
        ThrowsMessage<std::runtime_error>(
            "CapDataStore::initializeFile - Juction detected while attempting access file."));
  }
  // The emulator does not report links to files, so the test adds the attribute.
  Tests::WriteBytes(Path(), {});
  disk.writes.clear();
  disk.linksEverywhere = true;
  EXPECT_FALSE(store.persist("key", "other"));
  EXPECT_TRUE(log.Has(kPersistWarning));
  // The link is now created between the read and the write.
  disk.linksEverywhere = false;
  disk.onStep = [&](const std::string& step) {
    disk.linksEverywhere |= step == "Content";
    return 0U;
  };
  log.Clear();
  EXPECT_FALSE(store.persist("key", "other"));
  EXPECT_EQ(log.Lines(), std::vector<std::wstring>{
                             L"warning|CapDataStore - the file is a link or has a second name"});
  EXPECT_TRUE(disk.writes.empty());
}

// Callers that always return 0 rely on this.
TEST_F(CapDataStoreTest, EveryRefusedStepStoresTheValueOrLeavesALine) {
  using Change = bool (*)(CapDataStore&);
  static constexpr Change kChanges[] = {
      [](CapDataStore& store) { return store.persist("key", true); },
      [](CapDataStore& store) { return store.persistUnlessDocument("key", true); },
      [](CapDataStore& store) {
        return store.mergeMember("document", "key", BsonElement::Boolean(true));
      },
      [](CapDataStore& store) { return store.persist("with\0zero"s, true); },
      [](CapDataStore& store) {
        return store.mergeMember("document", "with\0zero"s, BsonElement::Boolean(true));
      },
      [](CapDataStore& store) {
        return store.mergeMember("key", "member", BsonElement::Boolean(true)) &&
               store.persistUnlessDocument("key", true);
      },
  };
  for (const Change change : kChanges) {
    bool refused = true;
    for (std::size_t call = 0; refused && !HasFailure(); ++call) {
      Tests::WriteBytes(Path(), {});
      log.Clear();
      faults.FailCall(call);
      bool stored = false;
      std::string thrown;
      std::unique_ptr<CapDataStore> store;
      try {
        store = TryOpenStore();
        stored = store != nullptr && change(*store);
      } catch (const system_mutex_exception& error) {
        thrown = error.what();
      }
      refused = call < faults.Calls().size();
      SCOPED_TRACE(refused ? faults.Calls()[call] : "none");
      faults.Clear();
      const bool logged = std::ranges::any_of(
          log.Lines(), [](const auto& line) { return line.find(L"|CapDataStore") != line.npos; });
      EXPECT_TRUE(stored || logged || thrown.starts_with("SystemMutex::"));
      if (store != nullptr && Tests::ReadBytes(Path()).empty()) {
        EXPECT_TRUE(store->persist("kept", true));
        EXPECT_EQ(Tests::DocumentOf(Path()).Size(), 1U) << "memory keeps what was not stored";
      }
      for (const std::wstring& left : Siblings()) ::DeleteFileW(left.c_str());
    }
  }
}

TEST_F(CapDataStoreTest, NamesWhatKeepsItFromBeingMade) {
  static const std::pair<std::wstring, const char*> kCases[] = {
      {std::wstring(300, L'a'),
       "CapDataStore::expandPathAndCreateDirectory - failed to expanded environment variable "
       "pointing to output directory"},
      {L"C:\\no such folder",
       "CapDataStore::expandPathAndCreateDirectory - failed to create storage directory"},
  };
  for (const auto& [text, message] : kCases) {
    const Tests::EnvironmentOverride programData(L"ProgramData", text);
    EXPECT_THAT(MakeStore, ThrowsMessage<std::runtime_error>(message));
  }
  const Tests::TempFolder folder;
  const Tests::EnvironmentOverride programData(L"ProgramData",
                                               L"\\\\?\\" + folder.Path().wstring());
  EXPECT_THAT(MakeStore, ThrowsMessage<std::runtime_error>(
                             "CapDataStore::isNTFSJunction - path to file must be valid."));
}

TEST_F(CapDataStoreTest, ThrowsWhenItsMutexFails) {
  CapDataStore store;
  BsonElement element;
  faults.FailNamed("KernelObjects.LockMutex");
  EXPECT_THROW(store.persist("key", true), system_mutex_exception);
  EXPECT_THROW(store.read("key", element), system_mutex_exception);
  EXPECT_THROW(CapDataStore(), system_mutex_exception);
  faults.FailNamed("KernelObjects.UnlockMutex");
  EXPECT_THROW(store.persist("key", true), system_mutex_exception);
  faults.Clear();
  EXPECT_TRUE(store.readBool("key", false));
}

TEST_F(CapDataStoreTest, AnUpdateSeesTheStoredValueAndMayLeaveItOrThrow) {
  CapDataStore store;
  const auto increment = [](const BsonElement* stored) -> std::optional<BsonElement> {
    return BsonElement::Int32(stored == nullptr ? 1 : stored->View().AsInt32().value() + 1);
  };
  ASSERT_TRUE(store.updateMember("document", "count", increment));
  ASSERT_TRUE(CapDataStore().updateMember("document", "count", increment));
  ASSERT_TRUE(
      store.updateMember("document", "count", [](const BsonElement*) { return std::nullopt; }));
  EXPECT_THROW(store.updateMember("document", "count",
                                  [](const BsonElement*) -> std::optional<BsonElement> {
                                    throw std::runtime_error("refused");
                                  }),
               std::runtime_error);
  EXPECT_EQ(store.readDocument("document"), WithInt("count", 2));
  EXPECT_EQ(disk.writes.size(), 2U);
  const Platform::UniqueHandle mutex(
      CreateMutexW(nullptr, FALSE, L"18CC6446-1DB5-4D23-8F2B-441BA13883D6"));
  EXPECT_FALSE(ReleaseMutex(mutex.get()));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Storage
