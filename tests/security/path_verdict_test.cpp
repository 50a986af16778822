#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "security/authenticode_helper.h"
#include "security/fake_trust.h"
#include "simulator/virtual_clock.h"
#include "support/directory_link.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"
#include "support/test_pki.h"

namespace Vx::Tessel::Security {

namespace {

using Platform::AccessEntry;
using testing::ElementsAre;
using testing::SizeIs;
using namespace std::chrono_literals;

constexpr std::uint32_t kGenericAll = 0x10000000;
constexpr std::uint32_t kFullControl = 0x1F01FF;
constexpr char kOperation[] = "Vx::Tessel::Security::VxAuthenticodeHelper::IsPathAllowed";

AccessEntry Entry(const wchar_t* domain, const wchar_t* name, std::uint32_t mask = kGenericAll) {
  return {.allowed = true, .mask = mask, .accountName = name, .accountDomain = domain};
}

AccessEntry Denied(AccessEntry entry) {
  entry.allowed = false;
  return entry;
}

const AccessEntry kInstaller = Entry(L"NT SERVICE", L"TrustedInstaller");
const AccessEntry kSystem = Entry(L"NT AUTHORITY", L"SYSTEM");

std::wstring Line(const std::wstring& rest) {
  return L"error|" + std::wstring(kOperation, kOperation + sizeof kOperation - 1) + rest;
}

class PathVerdictTest : public testing::Test {
 protected:
  Tests::FakeTrust trust;
  Simulator::VirtualClock clock;
  Platform::MachineScope scope{[this](Platform::Machine& machine) {
    machine.trustProvider = &trust;
    machine.clock = &clock;
  }};
  VxAuthenticodeHelper helper;
};

TEST_F(PathVerdictTest, AllowsAFileBelowEachPrefixInAnyLetterCase) {
  const std::wstring notepad = L"C:\\windows\\notepad.exe";
  ASSERT_TRUE(Platform::WindowsMachine().trustProvider->FinalPath(notepad));
  for (const std::wstring& path : {notepad, std::wstring(L"C:\\WINDOWS\\NOTEPAD.EXE"),
                                   std::wstring(L"%WinDir%\\notepad.exe")}) {
    EXPECT_TRUE(helper.IsPathAllowed(path)) << testing::PrintToString(path);
  }
  const Tests::ProtectedFolder folder;
  const std::wstring path = folder.Hold(L"unsigned.exe");
  const Tests::LogCapture log;
  EXPECT_TRUE(helper.IsPathAllowed(path));
  EXPECT_THAT(
      log.Lines(),
      ElementsAre(Line(L" - BeginsWith() failed [" + path + L"] [C:\\windows\\]"),
                  Line(L" - BeginsWith() failed [" + path + L"] [C:\\Program Files (x86)\\]")));
}

// Each text begins like an allowed path, or would by some reading, and none names a file there. The
// last column tells at which gate it must fail, so that a gate that goes missing is noticed.
TEST_F(PathVerdictTest, RefusesTextsThatOnlyLookProtected) {
  const Tests::TempFolder outside;
  const std::wstring evil = outside / L"evil.exe";
  std::filesystem::copy_file(Tests::PkiFile(L"unsigned.exe"), evil);
  const std::wstring below = evil.substr(3);  // without the drive
  std::wstring slashed = below;
  for (wchar_t& c : slashed) c = c == L'\\' ? L'/' : c;
  using enum PathOutcome;
  const struct {
    std::wstring path;
    PathOutcome outcome;
  } kCases[] = {
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
      {L"C:\\W\u0131ndows\\notepad.exe", OutsidePrefixes},
      {L"C:\\Windows2\\x.exe", OutsidePrefixes},
      {L"C:\\Windows", OutsidePrefixes},
      {L"", OutsidePrefixes},
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
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.path));
    EXPECT_EQ(helper.JudgePath(c.path).outcome, c.outcome);
  }
}

TEST_F(PathVerdictTest, TakesEquivalentTextsOfAProtectedFileForWhatTheyName) {
  const Tests::ProtectedFolder folder;
  const std::wstring path = folder.Hold(L"unsigned.exe");
  const std::wstring below = path.substr(3);
  for (const std::wstring& text : {L"C:\\Windows\\..\\" + below, L"C:/" + below, L"C:\\.\\" + below,
                                   path + L".", path + L" ", L"C:\\users\\..\\" + below}) {
    SCOPED_TRACE(testing::PrintToString(text));
    const PathVerdict verdict = helper.JudgePath(text);
    EXPECT_EQ(verdict.outcome, PathOutcome::Allowed);
    EXPECT_EQ(verdict.fullPath, path);
  }
}

TEST_F(PathVerdictTest, FollowsALinkOutOfAProtectedFolder) {
  const Tests::TempFolder outside;
  std::filesystem::copy_file(Tests::PkiFile(L"unsigned.exe"), outside / L"evil.exe");
  const Tests::ProtectedFolder folder;
  const Tests::DirectoryLink link(folder / L"link", outside.Path().wstring());
  const std::wstring path = folder / L"link\\evil.exe";
  const Tests::LogCapture log;
  EXPECT_EQ(helper.JudgePath(path).outcome, PathOutcome::LeadsElsewhere);
  ASSERT_THAT(log.Lines(), SizeIs(3));
  EXPECT_EQ(log.Lines()[2], Line(L" - [" + path + L"] leads to [" + outside / L"evil.exe" + L"]"));
}

// Whoever owns the link decides what the path names a moment later.
TEST_F(PathVerdictTest, RefusesAProtectedFileReachedThroughAnUnprotectedLink) {
  const Tests::ProtectedFolder folder;
  folder.Hold(L"unsigned.exe");
  const Tests::TempFolder outside;
  const Tests::DirectoryLink link(outside / L"link", folder.Path());
  EXPECT_EQ(helper.JudgePath(outside / L"link\\unsigned.exe").outcome,
            PathOutcome::OutsidePrefixes);
}

TEST_F(PathVerdictTest, RefusesAFolderThatIsReallyNamedLikeAVariable) {
  const Tests::ProtectedFolder folder;
  const std::wstring held = folder.Hold(L"unsigned.exe");
  const Tests::EnvironmentOverride variable(L"VxTestPlace", held.substr(3));
  trust.finalPaths[L"C:\\%VxTestPlace%"] = L"C:\\%VxTestPlace%";
  EXPECT_EQ(helper.JudgePath(L"C:\\%VxTestPlace%").outcome, PathOutcome::LeadsElsewhere);
  trust.finalPaths.clear();
  EXPECT_EQ(helper.JudgePath(L"C:\\%VxTestPlace%").outcome, PathOutcome::Allowed);
}

TEST_F(PathVerdictTest, ChecksTheAccessOfWindowsAppsFoldersOnly) {
  const std::wstring inPrograms = L"C:\\Program Files\\WindowsApps\\Vx.App\\app.exe";
  const std::wstring onDrive = L"D:\\WindowsApps\\Vx.App\\app.exe";
  const struct {
    const char* name;
    std::wstring path;
    std::wstring finalPath;
    std::vector<std::wstring> folders;
  } kCases[] = {
      {"below %PROGRAMFILES%", inPrograms, inPrograms, {L"C:\\Program Files\\WindowsApps"}},
      {"other letter case",
       L"C:\\PROGRAM FILES\\windowsapps\\a.exe",
       inPrograms,
       {L"C:\\PROGRAM FILES\\windowsapps"}},
      {"on another drive", onDrive, onDrive, {L"D:\\WindowsApps"}},
      {"moved to another drive",
       inPrograms,
       onDrive,
       {L"C:\\Program Files\\WindowsApps", L"D:\\WindowsApps"}},
      {"an ordinary program", L"C:\\Program Files\\Vx\\a.exe", L"C:\\Program Files\\Vx\\a.exe", {}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    trust.finalPaths = {{c.path, c.finalPath}};
    trust.folders.clear();
    trust.access = {std::vector{kInstaller, kSystem}};
    EXPECT_TRUE(helper.IsPathAllowed(c.path));
    EXPECT_EQ(trust.folders, c.folders);
    trust.access = {std::vector{kInstaller}};
    EXPECT_EQ(helper.IsPathAllowed(c.path), c.folders.empty());
  }
}

TEST_F(PathVerdictTest, DemandsGenericAllForBothAccounts) {
  const struct {
    const char* name;
    std::vector<AccessEntry> access;
    bool full;
  } kCases[] = {
      {"both", {kInstaller, kSystem}, true},
      {"both, other order, others between",
       {kSystem, Entry(L"BUILTIN", L"Users"), kInstaller},
       true},
      {"only TrustedInstaller", {kInstaller}, false},
      {"only SYSTEM", {kSystem, kSystem}, false},
      {"full control without the generic bit",
       {Entry(L"NT SERVICE", L"TrustedInstaller", kFullControl),
        Entry(L"NT AUTHORITY", L"SYSTEM", kFullControl)},
       false},
      {"SYSTEM denied", {kInstaller, Denied(kSystem)}, false},
      {"other letter case", {Entry(L"NT SERVICE", L"trustedinstaller"), kSystem}, false},
      {"domains exchanged",
       {Entry(L"NT AUTHORITY", L"TrustedInstaller"), Entry(L"NT SERVICE", L"SYSTEM")},
       false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    trust.access = {c.access};
    EXPECT_EQ(helper.CheckForFullConrolByTrustedInstallAndSystem(L"D:\\WindowsApps"), c.full);
  }
}

TEST_F(PathVerdictTest, TriesFiveTimesWithPausesBetweenUntilTheFirstSuccess) {
  const std::wstring path = L"D:\\WindowsApps\\app.exe";
  trust.finalPaths[path] = path;
  const auto failure = Tests::FakeTrust::Access::Failure(5);
  trust.access = {failure};
  const Tests::LogCapture log;
  EXPECT_FALSE(helper.IsPathAllowed(path));
  EXPECT_EQ(clock.Elapsed(), 4 * 250ms);
  const auto lines = log.Lines();
  ASSERT_THAT(lines, SizeIs(8));
  for (int attempt = 1; attempt <= 5; ++attempt) {
    EXPECT_EQ(lines[static_cast<std::size_t>(attempt) + 2],
              L"error|Security - GetNamedSecurityInfo - Failed " + std::to_wstring(attempt) +
                  L" of 5 times. Error Code = 5");
  }

  trust.folders.clear();
  trust.access = {failure, failure, std::vector{kInstaller, kSystem}};
  EXPECT_TRUE(helper.IsPathAllowed(path));
  EXPECT_EQ(clock.Elapsed(), 6 * 250ms);
}

TEST_F(PathVerdictTest, TakesAnExceptionForARefusalAndLogsIt) {
  trust.throws = true;
  const Tests::LogCapture log;
  EXPECT_FALSE(helper.CheckForFullConrolByTrustedInstallAndSystem(L"D:\\WindowsApps"));
  EXPECT_THAT(log.Lines(),
              ElementsAre(L"error|Exception in CheckForFullConrolByTrustedInstallAndSystem()."));
}

TEST(FolderAccess, ReadsTheAccountsOfARealFolder) {
  const Tests::ProtectedFolder folder;
  const auto access = Platform::WindowsMachine().trustProvider->FolderAccess(folder.Path());
  ASSERT_TRUE(access);
  EXPECT_TRUE(std::any_of(access->begin(), access->end(), [](const AccessEntry& entry) {
    return entry.allowed && entry.accountDomain == L"NT AUTHORITY" &&
           entry.accountName == L"SYSTEM";
  }));
  const auto missing =
      Platform::WindowsMachine().trustProvider->FolderAccess(folder / L"not there");
  EXPECT_FALSE(missing);
  EXPECT_EQ(missing.Error(), 2U);
}

}  // namespace

}  // namespace Vx::Tessel::Security
