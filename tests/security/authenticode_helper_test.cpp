#include "security/authenticode_helper.h"

#include "platform/trust_provider.h"
#include "security/authenticode_facade.h"
#include "security/file_trust.h"
#include "simulator/simulated_files.h"
#include "simulator/virtual_clock.h"
#include "support/test.h"

namespace Vx::Tessel::Security {

namespace {

using Platform::AccessEntry;
using Platform::AccessList;
using Platform::CatalogStep;
using Platform::Result;
using Platform::SignatureVerdict;
using Tests::PkiFile;
using Tests::ProtectedFolder;

constexpr std::int32_t Code(std::uint32_t hresult) {
  return static_cast<std::int32_t>(hresult);
}
constexpr auto kUntrustedRoot = Code(0x800B0109);
constexpr auto kExpired = Code(0x800B0101);
constexpr auto kBadDigest = Code(0x80096010);
constexpr auto kNoSignature = Code(0x800B0100);

constexpr std::uint32_t kGenericAll = 0x10000000;
constexpr std::uint32_t kFullControl = 0x1F01FF;

// Provides what Wine lacks: several signatures, catalogs and results that depend on the chain.
class FakeTrust : public Platform::TrustProvider {
 public:
  SignatureVerdict VerifyEmbedded(const std::wstring& path, std::uint32_t index) const override {
    return Verdict(L"embedded " + path, embedded, index);
  }
  SignatureVerdict VerifyInCatalog(const Platform::CatalogHit& catalog,
                                   std::uint32_t index) const override {
    return Verdict(L"catalog " + catalog.catalogPath, inCatalog, index);
  }
  std::optional<Platform::CatalogHit> FindCatalog(
      const std::wstring& path, Platform::CatalogFailure& failure) const override {
    failure = catalogFailure.value_or(failure);
    if (catalogFailure) return std::nullopt;
    return Platform::CatalogHit{
        .catalogPath = L"C:\\x.cat", .memberTag = L"00FF", .memberPath = path, .hash = {}};
  }
  using Verdicts = std::vector<SignatureVerdict>;
  Verdicts embedded;
  Verdicts inCatalog;
  std::optional<Platform::CatalogFailure> catalogFailure;
  mutable std::vector<std::wstring> asked;

 private:
  SignatureVerdict Verdict(const std::wstring& what, const Verdicts& all, std::uint32_t i) const {
    asked.push_back(what + L" " + std::to_wstring(i));
    if (i < all.size()) return all[i];
    return {.result = kNoSignature, .secondaryCount = 0, .signer = {}};
  }
};

// Returns Windows-style access lists. Paths missing from `finalPaths` are resolved normally.
class FakePlaces : public Simulator::SimulatedFiles {
 public:
  Result<std::wstring> FinalPath(const std::wstring& path) const override {
    const auto found = finalPaths.find(path);
    return found != finalPaths.end() ? found->second : SimulatedFiles::FinalPath(path);
  }
  Result<AccessList> FolderAccess(const std::wstring& folder) const override {
    folders.push_back(folder);
    if (access.empty()) throw std::runtime_error("no answer");
    return access.at(std::min(folders.size(), access.size()) - 1);
  }

  std::map<std::wstring, std::wstring> finalPaths;
  std::vector<Result<AccessList>> access;
  mutable std::vector<std::wstring> folders;
};

class AuthenticodeHelperTest : public testing::Test {
 protected:
  std::vector<std::string> Keys(SignatureKind kind = SignatureKind::Embedded) const {
    std::vector<std::string> keys;
    for (const auto& record : helper.CollectSignatures(L"C:\\f", kind)) {
      keys.push_back(record.public_key);
    }
    return keys;
  }

  PathOutcome Outcome(const std::wstring& path) const { return helper.CheckPath(path).outcome; }

  FakeTrust trust;
  FakePlaces places;
  Simulator::VirtualClock clock;
  Platform::MachineScope scope{[this](Platform::Machine& machine) {
    machine.trustProvider = &trust;
    machine.files = &places;
    machine.clock = &clock;
  }};
  VxAuthenticodeHelper helper;
};

SignatureVerdict Signed(std::int32_t result, unsigned char key, std::uint32_t more = 0) {
  return {.result = result,
          .secondaryCount = more,
          .signer = Platform::Signer{.publicKey = {std::byte{key}},
                                     .subject = L"CN=" + std::to_wstring(key),
                                     .names = Platform::SignerNames{}}};
}

TEST_F(AuthenticodeHelperTest, AsksForEverySignatureThatTheFirstAnswerCounts) {
  // The counts in later answers are ignored.
  trust.embedded = {Signed(0, 0xA1, 2), Signed(kBadDigest, 0xB2, 9), Signed(kExpired, 0xC3, 9)};
  EXPECT_THAT(Keys(), ElementsAre("a1", "c3"));
  trust.inCatalog = {Signed(0, 0x11, 1), Signed(0, 0x12)};
  EXPECT_THAT(Keys(SignatureKind::Catalog), ElementsAre("11", "12"));
  EXPECT_THAT(trust.asked,
              ElementsAre(L"embedded C:\\f 0", L"embedded C:\\f 1", L"embedded C:\\f 2",
                          L"catalog C:\\x.cat 0", L"catalog C:\\x.cat 1"));
}

TEST_F(AuthenticodeHelperTest, EndsForACountThatNoRealFileHas) {
  trust.embedded = {Signed(0, 1, 0xFFFFFFFF)};
  EXPECT_THAT(Keys(), SizeIs(1));
  EXPECT_LE(trust.asked.size(), 256U);
}

TEST_F(AuthenticodeHelperTest, CollectsOnlySignaturesWhoseResultCanMatter) {
  static constexpr struct {
    std::int32_t result;
    bool collected;
    bool trusted;
  } kCases[] = {{0, true, true},
                {kExpired, true, true},
                {kUntrustedRoot, true, false},
                {kBadDigest, false, false},
                {kNoSignature, false, false},
                {1, false, false}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.result);
    trust.embedded = {Signed(c.result, 1)};
    const auto records = helper.CollectSignatures(L"C:\\f", SignatureKind::Embedded);
    EXPECT_EQ(records.size(), c.collected ? 1U : 0U);
    EXPECT_EQ(VxAuthenticodeHelper::IsTrustedByWindows(records), c.trusted);
  }
}

TEST_F(AuthenticodeHelperTest, LogsSubjectsAndNamesThatCannotBeRead) {
  trust.embedded = {Signed(0, 1, 2), Signed(0, 2), Signed(0, 3)};
  trust.embedded[1].signer->names.reset();
  trust.embedded[2].signer.reset();
  const Tests::LogCapture log;
  EXPECT_THAT(Keys(), ElementsAre("01", "02"));
  EXPECT_THAT(log.Lines(), ElementsAre(L"info|Subject = CN=1", L"info|Subject = CN=2",
                                       L"error|Error while retrieving Subject field.",
                                       L"error|Error while retrieving Subject field."));
}

TEST_F(AuthenticodeHelperTest, LogsTheStepAtWhichACatalogSearchFailed) {
  const std::pair<CatalogStep, std::wstring> kCases[] = {
      {CatalogStep::AcquireContext, L"CryptCATAdminAcquireContext2"},
      {CatalogStep::OpenFile, L"CreateFileW"},
      {CatalogStep::Hash, L"CryptCATAdminCalcHashFromFileHandle2"},
      {CatalogStep::FindCatalog, L"CryptCATAdminEnumCatalogFromHash"}};
  for (const auto& [step, function] : kCases) {
    trust.catalogFailure = {.step = step, .error = 1168};
    const Tests::LogCapture log;
    EXPECT_THAT(Keys(SignatureKind::Catalog), IsEmpty());
    EXPECT_THAT(log.Lines(), ElementsAre(L"info|Security - GetSecurityCatalogInfo - File = C:\\f",
                                         L"error|Security - GetSecurityCatalogInfo - Failed "
                                         L"during " +
                                             function + L". Error Code = 1168"));
  }
}

TEST_F(AuthenticodeHelperTest, ComparesKeysAsExactText) {
  const std::vector<SignatureRecord> records = {
      {.public_key = "00", .trust_result = 0, .names = {}},
      {.public_key = "ab cd", .trust_result = 0, .names = {}}};
  for (const std::string_view pinned : {"ab cd", "AB CD", "ab", "ab cd ef", ""}) {
    EXPECT_EQ(VxAuthenticodeHelper::IsKeyPinned(records, {&pinned, 1}), pinned == "ab cd");
  }
}

TEST_F(AuthenticodeHelperTest, TakesAcceptanceAndPinFromDifferentSignatures) {
  static constexpr std::string_view kPins[] = {"0a"};
  static constexpr struct {
    const char* name;
    std::int32_t pinnedResult;
    std::int32_t otherResult;
    bool trusted;
  } kCases[] = {
      {"both verified", 0, 0, true},
      {"pinned one has an untrusted root, the other is verified", kUntrustedRoot, 0, true},
      {"pinned one is expired", kExpired, kBadDigest, true},
      {"pinned one has an untrusted root", kUntrustedRoot, kUntrustedRoot, false},
      {"pinned one is broken", kBadDigest, 0, false}};
  const ProtectedFolder folder;
  const std::wstring path = folder.Hold(L"unsigned.exe");
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    trust.inCatalog = {Signed(c.otherResult, 0x0B)};
    trust.embedded = {Signed(c.otherResult, 0x0C, 1), Signed(c.pinnedResult, 0x0A)};
    EXPECT_EQ(VerifyFile(path, kPins).trusted, c.trusted);
  }
}

TEST_F(AuthenticodeHelperTest, ComparesTheDropboxNameExactly) {
  const ProtectedFolder folder;
  const std::wstring path = folder.Hold(L"unsigned.exe");
  const struct {
    std::wstring commonName;
    std::int32_t result;
    bool trusted;
  } kCases[] = {{L"Dropbox, Inc", 0, true},
                {L"Dropbox, Inc", kUntrustedRoot, false},
                {L"dropbox, inc", 0, false},
                {std::wstring(L"Dropbox, Inc\0.evil", 18), 0, false},
                {L"", 0, false}};
  trust.inCatalog = {Signed(0, 2)};
  for (const auto& c : kCases) {
    trust.embedded = {Signed(c.result, 1)};
    trust.embedded[0].signer->names->commonName = c.commonName;
    const Tests::LogCapture log;
    EXPECT_EQ(VxAuthenticodeFacade().IsDropboxFileTrusted(path.c_str()), c.trusted);
    EXPECT_EQ(log.Lines().front(), L"info|Starting validation of Dropbox file.");
    EXPECT_EQ(log.Has(L"error|Dropbox file is not trusted by windows."),
              c.result == kUntrustedRoot);
  }
}

using PathVerdictTest = AuthenticodeHelperTest;

TEST_F(PathVerdictTest, AllowsAProtectedFileWrittenBelowAPrefix) {
  const ProtectedFolder folder;
  const std::wstring path = folder.Hold(L"unsigned.exe");
  const std::wstring below = path.substr(3);
  for (const std::wstring& text : {path, L"C:\\Windows\\..\\" + below, path + L".", path + L" "}) {
    SCOPED_TRACE(testing::PrintToString(text));
    EXPECT_EQ(Outcome(text), PathOutcome::Allowed);
    EXPECT_EQ(helper.CheckPath(text).fullPath, path);
  }
  for (const wchar_t* text :
       {L"C:\\windows\\notepad.exe", L"C:\\WINDOWS\\NOTEPAD.EXE", L"%WinDir%\\notepad.exe"}) {
    EXPECT_TRUE(helper.IsPathAllowed(text)) << testing::PrintToString(text);
  }
}

// Each text starts like an allowed path, or would under some interpretation, but names no file
// there, or names one without starting with an allowed prefix. The outcome identifies the check
// that must reject it, so that a missing check is detected.
TEST_F(PathVerdictTest, RefusesTextsThatOnlyLookProtected) {
  const Tests::TempFolder outside;
  const std::wstring evil = outside / L"evil.exe";
  std::filesystem::copy_file(PkiFile(L"unsigned.exe"), evil);
  const std::wstring below = evil.substr(3);  // without the drive
  std::wstring slashed = below;
  std::replace(slashed.begin(), slashed.end(), L'\\', L'/');
  using enum PathOutcome;
  const std::pair<std::wstring, PathOutcome> kCases[] = {
      {L"C:\\Windows\\..\\" + below, OutsidePrefixes},
      {L"C:\\Windows/../" + slashed, OutsidePrefixes},
      {L"%windir%\\..\\" + below, OutsidePrefixes},
      {L"C:\\Windows\\..\\WindowsApps\\..\\" + below, OutsidePrefixes},
      {L"\\\\?\\C:\\Windows\\notepad.exe", OutsidePrefixes},
      {L"\\\\.\\C:\\Windows\\notepad.exe", OutsidePrefixes},
      {L"\\\\localhost\\c$\\Windows\\notepad.exe", OutsidePrefixes},
      {L"\\Windows\\notepad.exe", OutsidePrefixes},
      {L"notepad.exe", OutsidePrefixes},
      {L"C:Windows\\notepad.exe", OutsidePrefixes},
      {L"C:/Windows/notepad.exe", OutsidePrefixes},
      {L"C:\\.\\Windows\\notepad.exe", OutsidePrefixes},
      {L"C:\\Users\\..\\Windows\\notepad.exe", OutsidePrefixes},
      {L"C:\\Windows2\\x.exe", OutsidePrefixes},
      {L"C:\\Windows\\tracing\\x:evil.exe", NotPlain},
      {L"C:\\Windows\\C:\\" + below, NotPlain},
      {L"C:\\Windows\\", NotPlain},
      {L"\\\\?\\C:\\WindowsApps\\..\\" + below, NotPlain},
      {L"x:\\WindowsApps\\y:evil.exe", NotPlain},
      {L"C:\\Windows\\no such file.exe", NotFound},
      {L"C:\\Windows\\system32", NotFound},
      {L"C:\\Windows\\" + std::wstring(300, L'a'), NotFound},
      {L"C:\\Windows\\" + std::wstring(40000, L'a'), NotExpanded},
  };
  for (const auto& [path, outcome] : kCases) {
    EXPECT_EQ(Outcome(path), outcome) << testing::PrintToString(path);
  }
}

TEST_F(PathVerdictTest, FollowsALinkOutOfAProtectedFolder) {
  const Tests::TempFolder outside;
  std::filesystem::copy_file(PkiFile(L"unsigned.exe"), outside / L"evil.exe");
  const ProtectedFolder folder;
  const Tests::DirectoryLink link(folder / L"link", outside.Path().wstring());
  const std::wstring path = folder / L"link\\evil.exe";
  const Tests::LogCapture log;
  EXPECT_EQ(Outcome(path), PathOutcome::LeadsElsewhere);
  EXPECT_TRUE(log.Has(L"error|Vx::Tessel::Security::VxAuthenticodeHelper::IsPathAllowed - [" +
                      path + L"] leads to [" + outside / L"evil.exe" + L"]"));
}

TEST_F(PathVerdictTest, RefusesAFolderThatIsReallyNamedLikeAVariable) {
  const ProtectedFolder folder;
  const std::wstring held = folder.Hold(L"unsigned.exe");
  const Tests::EnvironmentOverride variable(L"VxTestPlace", held.substr(3));
  EXPECT_EQ(Outcome(L"C:\\%VxTestPlace%"), PathOutcome::Allowed);
  places.finalPaths[L"C:\\%VxTestPlace%"] = L"C:\\%VxTestPlace%";
  EXPECT_EQ(Outcome(L"C:\\%VxTestPlace%"), PathOutcome::LeadsElsewhere);
}

AccessEntry Entry(const wchar_t* sid, std::uint32_t mask = kGenericAll) {
  return {.allowed = true, .mask = mask, .sid = sid};
}
constexpr wchar_t kInstallerSid[] =
    L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";
constexpr wchar_t kSystemSid[] = L"S-1-5-18";
const AccessEntry kInstaller = Entry(kInstallerSid);
const AccessEntry kSystem = Entry(kSystemSid);
const AccessList kBoth{.owner = kInstallerSid, .entries = {kInstaller, kSystem}};

TEST_F(PathVerdictTest, ChecksTheAccessOfWindowsAppsFoldersOnly) {
  const std::wstring inPrograms = L"C:\\Program Files\\WindowsApps\\Vx.App\\app.exe";
  const std::wstring folder = L"C:\\Program Files\\WindowsApps";
  const std::wstring shouted = L"C:\\PROGRAM FILES\\windowsapps";
  const std::wstring onDrive = L"D:\\WindowsApps\\Vx.App\\app.exe";
  const std::wstring ordinary = L"C:\\Program Files\\Vx\\a.exe";
  const struct {
    const char* name;
    std::wstring path;
    std::wstring finalPath;
    std::vector<std::wstring> folders;
  } kCases[] = {
      {"below %PROGRAMFILES%", inPrograms, inPrograms, {folder}},
      {"other letter case", shouted + L"\\a.exe", inPrograms, {shouted}},
      {"on another drive", onDrive, onDrive, {L"D:\\WindowsApps"}},
      {"moved to another drive", inPrograms, onDrive, {folder, L"D:\\WindowsApps"}},
      {"an ordinary program", ordinary, ordinary, {}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    places.finalPaths = {{c.path, c.finalPath}};
    places.folders.clear();
    places.access = {kBoth};
    EXPECT_TRUE(helper.IsPathAllowed(c.path));
    EXPECT_EQ(places.folders, c.folders);
    places.access = {AccessList{.owner = kInstallerSid, .entries = {kInstaller}}};
    EXPECT_EQ(helper.IsPathAllowed(c.path), c.folders.empty());
  }
}

TEST_F(PathVerdictTest, DemandsGenericAllForBothAccountsAndOneOfThemAsOwner) {
  AccessEntry denied = kSystem;
  denied.allowed = false;
  const auto weakInstaller = Entry(kInstallerSid, kFullControl);
  const auto weakSystem = Entry(kSystemSid, kFullControl);
  const struct {
    const char* name;
    std::vector<AccessEntry> access;
    bool full;
    const wchar_t* owner = kInstallerSid;
  } kCases[] = {
      {"owned by SYSTEM", {kSystem, kInstaller}, true, kSystemSid},
      {"owned by administrators", {kSystem, kInstaller}, false, L"S-1-5-32-544"},
      {"unknown owner", {kSystem, kInstaller}, false, L""},
      {"both, with others in between", {kSystem, Entry(L"S-1-5-32-545"), kInstaller}, true},
      {"only TrustedInstaller", {kInstaller}, false},
      {"only SYSTEM", {kSystem, kSystem}, false},
      {"an installer without the generic bit", {weakInstaller, kSystem}, false},
      {"a SYSTEM without the generic bit", {kInstaller, weakSystem}, false},
      {"SYSTEM denied", {kInstaller, denied}, false},
      {"another service", {Entry(L"S-1-5-80-1-2-3-4-5"), kSystem}, false},
  };
  for (const auto& c : kCases) {
    places.access = {AccessList{.owner = c.owner, .entries = c.access}};
    EXPECT_EQ(helper.CheckForFullConrolByTrustedInstallAndSystem(L"D:\\WindowsApps"), c.full)
        << c.name;
  }
}

TEST_F(PathVerdictTest, TriesFiveTimesWithPausesBetweenUntilTheFirstSuccess) {
  const std::wstring path = L"D:\\WindowsApps\\app.exe";
  places.finalPaths[path] = path;
  const Platform::Failure failure(5);
  places.access = {failure};
  const Tests::LogCapture log;
  EXPECT_FALSE(helper.IsPathAllowed(path));
  EXPECT_EQ(clock.Elapsed(), 4 * 250ms);
  ASSERT_THAT(log.Lines(), SizeIs(8));
  for (std::size_t attempt = 1; attempt <= 5; ++attempt) {
    EXPECT_EQ(log.Lines()[attempt + 2], L"error|Security - GetNamedSecurityInfo - Failed " +
                                            std::to_wstring(attempt) +
                                            L" of 5 times. Error Code = 5");
  }
  places.folders.clear();
  places.access = {failure, failure, kBoth};
  EXPECT_TRUE(helper.IsPathAllowed(path));
  EXPECT_EQ(clock.Elapsed(), 6 * 250ms);
}

TEST_F(PathVerdictTest, TakesAnExceptionForARefusalAndLogsIt) {
  const Tests::LogCapture log;
  EXPECT_FALSE(helper.CheckForFullConrolByTrustedInstallAndSystem(L"D:\\WindowsApps"));
  EXPECT_THAT(log.Lines(),
              ElementsAre(L"error|Exception in CheckForFullConrolByTrustedInstallAndSystem()."));
}

}  // namespace

}  // namespace Vx::Tessel::Security
