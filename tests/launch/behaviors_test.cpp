#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "launch/lockdown_mode.h"
#include "launch/mcafee_helper.h"
#include "launch/qubo_behaviors.h"
#include "launch/registration_data.h"
#include "launch/software_check_behaviors.h"
#include "launch/text_files.h"
#include "launch/windows_mode_check_behavior.h"
#include "platform/system_services.h"
#include "security/authenticode_facade.h"
#include "storage/cap_data_store.h"
#include "storage/store_faults.h"
#include "support/fake_console.h"
#include "support/log_capture.h"
#include "support/private_local_machine.h"
#include "support/probe.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

using State = RegistrationHelper::RegistrationState;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Tests::FakeConsole;
using Tests::TempFolder;

constexpr wchar_t kSentra[] = L"7C3B9E40.SentraAssistant_r4x2m8kq7tn3b";
constexpr wchar_t kSentraKey[] = L"SOFTWARE\\WOW6432Node\\Vexmoor\\SentraActive";

class BehaviorTest : public ::testing::Test {
 protected:
  void MakeFolder(const char* name) const {
    std::filesystem::create_directories(programs.Path() / name);
  }

  Tests::PrivateStore store;
  TempFolder programs;
  Tests::EnvironmentOverride programFiles{L"ProgramFiles", programs.Path().wstring()};
  FakeConsole console;
  Platform::MachineScope scope{[this](Platform::Machine& machine) { console.Install(machine); }};
  Tests::LogCapture log;
};

using SoftwareCheckTest = BehaviorTest;

TEST_F(SoftwareCheckTest, SentraIsInstalledByItsValueOrItsPackage) {
  Tests::PrivateLocalMachine registry;
  const Qubo::SentraSoftwareCheckBehavior sentra;
  EXPECT_FALSE(sentra.IsInstalled());
  registry.Set(kSentraKey, L"Another", REG_SZ, {});
  EXPECT_FALSE(sentra.IsInstalled());

  console.installed[kSentra] = L"Sentra_1";
  EXPECT_TRUE(sentra.IsUwpInstalled());
  EXPECT_TRUE(sentra.IsInstalled());

  registry.Set(kSentraKey, L"Version", REG_BINARY, {});
  console.calls.clear();
  EXPECT_TRUE(sentra.IsInstalled());
  EXPECT_THAT(console.calls, IsEmpty());  // the value answers; nobody is asked for a package
}

TEST_F(SoftwareCheckTest, SentraHasNoPackageWhileNobodyIsThere) {
  console.installed[kSentra] = L"Sentra_1";
  console.session = 0xFFFFFFFF;
  EXPECT_FALSE(Qubo::SentraSoftwareCheckBehavior().IsUwpInstalled());
}

TEST_F(SoftwareCheckTest, FoldersTellPreloadedAndInstalled) {
  const Qubo::SentraSoftwareCheckBehavior sentra;
  const Qubo::McAfeeSoftwareCheckBehavior mcafee;
  EXPECT_FALSE(sentra.IsPreloaded());
  EXPECT_FALSE(mcafee.IsPreloaded());
  EXPECT_FALSE(mcafee.IsInstalled());
  MakeFolder("vx/SentraPre");
  EXPECT_TRUE(sentra.IsPreloaded());
  EXPECT_FALSE(mcafee.IsPreloaded());
  MakeFolder("Vx/McAfeePre");
  EXPECT_TRUE(mcafee.IsPreloaded());
  MakeFolder("Common Files/McAfee");
  EXPECT_TRUE(mcafee.IsWin32Installed());
  EXPECT_TRUE(mcafee.IsInstalled());
}

TEST_F(SoftwareCheckTest, AFileIsNoFolderAndALongPathIsNone) {
  MakeFolder("vx");
  std::ofstream(programs.Path() / "vx" / "SentraPre") << "file";
  EXPECT_FALSE(Qubo::SentraSoftwareCheckBehavior().IsPreloaded());
  const Tests::EnvironmentOverride tooLong(L"ProgramFiles", L"C:\\" + std::wstring(260, L'x'));
  EXPECT_FALSE(Qubo::SentraSoftwareCheckBehavior().IsPreloaded());
}

TEST_F(SoftwareCheckTest, McAfeeHasNoPackageToAskFor) {
  try {
    Qubo::McAfeeSoftwareCheckBehavior().IsUwpInstalled();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::logic_error& error) {
    EXPECT_STREQ(error.what(), "Method not implemented yet.");
  }
}

using RegistrationHelperTest = BehaviorTest;

TEST_F(RegistrationHelperTest, ReadsTheStateThatAnotherServiceStored) {
  EXPECT_EQ(RegistrationHelper().GetRegistrationState(), State::Unknown);
  EXPECT_THAT(log.Lines(), ElementsAre(L"info|value for registration_full_sent is not_set",
                                       L"warning|registration_full_sent key doesn't exist."));
  log.Clear();
  Storage::CapDataStore().persist("registration_full_sent", "skipped_oobe");
  const Qubo::QuboRegistrationCheckBehavior check(std::make_unique<RegistrationHelper>());
  EXPECT_EQ(check.GetState(), State::SkippedOobe);
  EXPECT_THAT(log.Lines(), ElementsAre(L"info|value for registration_full_sent is skipped_oobe"));
}

TEST_F(RegistrationHelperTest, AValueOfAnotherKindIsNotSet) {
  Storage::CapDataStore().persist("registration_full_sent", true);
  EXPECT_EQ(RegistrationHelper().GetRegistrationState(), State::Unknown);
  EXPECT_THAT(log.Lines(), SizeIs(2));
}

class FakeTrust final : public Security::VxAuthenticodeFacadeBase {
 public:
  bool IsFileTrusted(const wchar_t* path) override {
    asked = path;
    return trusted;
  }
  bool IsFileTrustedRestricted(const wchar_t*) override { return false; }
  bool IsDropboxFileTrusted(const wchar_t*) override { return false; }

  bool trusted = true;
  std::wstring asked;
};

class FakeLibraries final : public Platform::LockdownLibraries {
 public:
  class Library final : public Platform::LockdownLibrary {
   public:
    explicit Library(FakeLibraries& of) : owner(of) { ++owner.loaded; }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library() override { --owner.loaded; }
    std::int32_t QueryMode(std::int32_t& answer) const override {
      if (owner.writes) answer = owner.mode;
      return owner.status;
    }

   private:
    FakeLibraries& owner;
  };

  Platform::Result<std::unique_ptr<Platform::LockdownLibrary>> Load(
      const std::wstring& fullPath) override {
    asked = fullPath;
    using Loaded = Platform::Result<std::unique_ptr<Platform::LockdownLibrary>>;
    if (loadError != 0) return Loaded::Failure(loadError);
    return Loaded(std::make_unique<Library>(*this));
  }

  std::int32_t mode = 2;
  bool writes = true;
  std::int32_t status = 0;
  Platform::ErrorCode loadError = 0;
  int loaded = 0;
  std::wstring asked;
};

class LockdownModeTest : public BehaviorTest {
 protected:
  FakeTrust trust;
  FakeLibraries libraries;
  Platform::MachineScope policy{
      [this](Platform::Machine& machine) { machine.lockdownLibraries = &libraries; }};
};

TEST_F(LockdownModeTest, LoadsOnlyATrustedLibraryFromItsFullPath) {
  EXPECT_EQ(QueryLockoutMode(L"caller", trust), 2);
  EXPECT_EQ(libraries.asked, L"C:\\windows\\System32\\wldp.dll");
  EXPECT_EQ(trust.asked, libraries.asked);
  EXPECT_EQ(libraries.loaded, 0);

  libraries.asked.clear();
  trust.trusted = false;
  EXPECT_EQ(QueryLockoutMode(L"caller", trust), 0);
  EXPECT_EQ(libraries.asked, L"");
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(LockdownModeTest, KeepsWhatTheCallLeftWhenItFails) {
  static constexpr struct {
    bool writes;
    std::int32_t mode;
  } kCases[] = {{false, 0}, {true, 2}};
  for (const auto& c : kCases) {
    log.Clear();
    libraries.writes = c.writes;
    libraries.status = static_cast<std::int32_t>(0x80004001);
    EXPECT_EQ(QueryLockoutMode(L"caller", trust), c.mode);
    EXPECT_THAT(log.Lines(), ElementsAre(L"warning|caller.QueryLockoutMode - failed on function "
                                         L"WldpQueryWindowsLockdownMode with HRESULT 0x80004001"));
  }
}

TEST_F(LockdownModeTest, ALibraryThatDoesNotLoadMeansUnlocked) {
  libraries.loadError = 126;
  EXPECT_EQ(QueryLockoutMode(L"caller", trust), 0);
  EXPECT_THAT(log.Lines(), ElementsAre(L"warning|caller.QueryLockoutMode failed to load dll "
                                       L"C:\\windows\\System32\\wldp.dll with error: 126"));
}

// The library of this machine is missing or unsigned, so the mode now is 0.
using WindowsModeCheckTest = BehaviorTest;

TEST_F(WindowsModeCheckTest, WasInSModeOnlyWithALockedFirstModeOnRecord) {
  using Storage::BsonElement;
  static const struct {
    const char* name = nullptr;
    BsonElement first;
    const wchar_t* logged = nullptr;
    bool was = false;
  } kCases[] = {
      {"missing", {}, L"-1", false},
      {"locked", BsonElement::Int32(2), L"2", true},
      {"unlocked", BsonElement::Int32(0), L"0", false},
      {"never seen", BsonElement::Int32(-1), L"-1", false},
      {"of another width", BsonElement::Int64(2), L"-1", false},
      {"a text", BsonElement::Text("2"), L"-1", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Storage::CapDataStore().mergeMember("OrvaneServiceDocument", "FirstSystemEnforcementMode",
                                        c.first);
    Qubo::WindowsModeCheckBehavior check;
    log.Clear();
    EXPECT_EQ(check.HasBeenInSMode(), c.was);
    EXPECT_FALSE(check.IsInSMode());
    std::vector<std::wstring> lines{
        L"info|.HasBeenInSMode Current Lockdown Policy is 0",
        std::wstring(L"info|.HasBeenInSMode First Lockdown Policy is ") + c.logged};
    if (c.was) {
      lines.emplace_back(L"info|.HasBeenInSMode Detected S Mode Switch");
      lines.emplace_back(L"info|.HasBeenInSMode Detected S Mode Switch 1");
    }
    std::vector<std::wstring> policyLines;
    for (const auto& line : log.Lines()) {
      if (line.find(L"HasBeenInSMode") != std::wstring::npos) policyLines.push_back(line);
    }
    EXPECT_EQ(policyLines, lines);
  }
}

TEST_F(WindowsModeCheckTest, KeepsTheDocumentAsItWasWhenItWasMade) {
  Qubo::WindowsModeCheckBehavior check;
  Storage::CapDataStore().mergeMember("OrvaneServiceDocument", "FirstSystemEnforcementMode",
                                      Storage::BsonElement::Int32(2));
  EXPECT_FALSE(check.HasBeenInSMode());
  EXPECT_TRUE(Qubo::WindowsModeCheckBehavior().HasBeenInSMode());
}

TEST_F(WindowsModeCheckTest, SaysThatTheStoreCannotBeOpened) {
  // A file where the store's folder would be.
  std::ofstream(std::filesystem::path(store.FilePath()).parent_path().parent_path()) << "file";
  Qubo::WindowsModeCheckBehavior check;
  EXPECT_TRUE(log.Has(L"error|Could not retrive OrvaneService for WindowsModeCheckBehavior"));
  EXPECT_FALSE(check.HasBeenInSMode());
}

using McAfeeHelperTest = BehaviorTest;

TEST_F(McAfeeHelperTest, SaysWhichStepFailed) {
  constexpr wchar_t kActing[] = L"info|Attempting to impersonate logged in user.";
  static const struct {
    const char* name;
    std::size_t failing;
    std::vector<std::wstring> lines;
    bool expanded;
  } kCases[] = {
      {"token", 0, {L"warning|Problem while querying user's access token."}, false},
      {"copy", 1, {L"warning|Problem while duplicating the user's access token."}, false},
      {"impersonation", 2, {L"warning|Problem while impersonating logged in user."}, false},
      {"expansion", 3, {L"warning|Problem while expanding path."}, false},
      {"revert", 4, {L"error|Problem while reverting the impersonation."}, true},
      {"nothing", FakeConsole::kNever, {}, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    log.Clear();
    console.FailCall(c.failing);
    std::wstring expanded;
    EXPECT_EQ(McAfeeHelper().expand_path_impersonated_as_loggedin_user(L"%AppData%\\x", expanded),
              c.expanded);
    EXPECT_EQ(expanded, c.expanded ? L"C:\\Users\\ann\\AppData\\Roaming\\x" : L"");
    std::vector<std::wstring> lines{kActing};
    lines.insert(lines.end(), c.lines.begin(), c.lines.end());
    EXPECT_EQ(log.Lines(), lines);
  }
  EXPECT_THAT(console.expansionLimits, ElementsAre(520));
}

TEST_F(McAfeeHelperTest, NeedsAConsoleAndSessions) {
  std::wstring expanded;
  console.sessionApi = false;
  EXPECT_FALSE(McAfeeHelper().expand_path_impersonated_as_loggedin_user(L"x", expanded));
  EXPECT_THAT(log.Lines().back(),
              L"error|Problem in McAfeeHelper::expand_path_impersonated_as_loggedin_user(): "
              L"WTSQueryUserToken is not available on this platform");
  console.session = 0xFFFFFFFF;
  EXPECT_FALSE(McAfeeHelper().expand_path_impersonated_as_loggedin_user(L"x", expanded));
  EXPECT_THAT(log.Lines().back(),
              L"warning|Problem while detecting active console session ID. This could be caused if "
              L"the business logic ran while the user was not logged in.");
  EXPECT_THAT(console.calls, IsEmpty());
}

class RegistrationDataTest : public BehaviorTest {
 protected:
  RegistrationDataTest() {
    console.userVariables = {{L"%programdata%", machineData.Path().wstring()},
                             {L"%AppData%", userData.Path().wstring()}};
    std::filesystem::create_directories(machineData.Path() / "Vx" / "Registration");
  }

  void WriteSource(const std::string& content) const {
    std::ofstream(Source(), std::ios::binary) << content;
  }
  std::filesystem::path Source() const {
    return machineData.Path() / "Vx" / "Registration" / "registration_subset.xml";
  }
  std::filesystem::path Destination() const {
    return userData.Path() / "Vx" / "Vx Setup" / "REGDATA" / "RegistrationSubset.xml";
  }
  std::string Copied() const {
    std::ifstream file(Destination(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  TempFolder machineData;
  TempFolder userData;
  const Logging::TraceLogger& logger = *Logging::LogManager::GetLogger();
};

TEST_F(RegistrationDataTest, CopiesTheMachinesDataOverTheUsers) {
  const std::string content("\xFF\xFE<\0x\0\r\n\0\x1A", 9);
  WriteSource(content);
  std::filesystem::create_directories(Destination().parent_path());
  std::ofstream(Destination()) << "older and longer than what comes";
  EXPECT_TRUE(CopyRegistrationData(L"client", logger));
  EXPECT_EQ(Copied(), content);
  WriteSource("second");
  EXPECT_TRUE(RefreshRegistrationData(logger));
  EXPECT_EQ(Copied(), "second");
}

TEST_F(RegistrationDataTest, TouchesFilesOnlyWithTheUsersRights) {
  WriteSource("x");
  std::filesystem::create_directories(Destination().parent_path());
  Tests::FaultyFiles files;
  int accesses = 0;
  files.onContent = [&] {
    ++accesses;
    EXPECT_TRUE(console.acting);
  };
  const Platform::MachineScope inserted([&](Platform::Machine& machine) { machine.files = &files; });
  EXPECT_TRUE(CopyRegistrationData(L"client", logger));
  EXPECT_EQ(accesses, 3);
  EXPECT_FALSE(console.acting);
  console.FailCall(12);
  EXPECT_FALSE(CopyRegistrationData(L"client", logger));
  ASSERT_EQ(console.calls.back(), "Impersonate");
  EXPECT_EQ(log.Lines().back(), L"warning|Problem while impersonating logged in user.");
  EXPECT_EQ(accesses, 3);
}

TEST_F(RegistrationDataTest, NamesTheSideThatFailed) {
  EXPECT_FALSE(CopyRegistrationData(L"client", logger));
  EXPECT_EQ(log.Lines().back(), L"error|Error while copying source file " + Source().wstring());
  EXPECT_EQ(log.Callers().back(), L"client");
  WriteSource("x");
  EXPECT_FALSE(RefreshRegistrationData(logger));
  EXPECT_EQ(log.Lines().back(),
            L"error|Error while copying destination file " + Destination().wstring());
  EXPECT_EQ(log.Callers().back(), L"Win10SSwitch");
}

TEST_F(RegistrationDataTest, CopiesNothingUnlessBothPathsAreKnown) {
  WriteSource("x");
  std::filesystem::create_directories(Destination().parent_path());
  for (const std::size_t call : {std::size_t{3}, std::size_t{8}}) {
    console.FailCall(call);
    EXPECT_FALSE(CopyRegistrationData(L"client", logger));
    ASSERT_EQ(console.calls[call], "ExpandForUser");
  }
  EXPECT_FALSE(std::filesystem::exists(Destination()));
}

TEST(ReadTextFileTest, AnswersNothingWithoutAByteOrderMark) {
  const TempFolder folder;
  const Tests::LogCapture log;
  const Logging::TraceLogger& logger = *Logging::LogManager::GetLogger();
  const std::wstring path = folder / L"arguments.txt";
  EXPECT_EQ(ReadTextFile(path, L"Win10SSwitch", logger), L"");
  EXPECT_THAT(log.Lines(), IsEmpty());

  std::ofstream(std::filesystem::path(path)) << "/quiet";
  EXPECT_EQ(ReadTextFile(path, L"Win10SSwitch", logger), L"");
  EXPECT_THAT(log.Lines(), ElementsAre(L"warning|Error Finding BOM for file: " + path));
  EXPECT_THAT(log.Callers(), ElementsAre(L"Win10SSwitch"));

  std::ofstream(std::filesystem::path(path)) << "\xEF\xBB\xBF/quiet";
  EXPECT_EQ(ReadTextFile(path, L"Win10SSwitch", logger), L"/quiet");
}

TEST(CopyFileContentTest, ADestinationThatCannotBeWrittenKeepsItsContentAndNoPartIsLeft) {
  const TempFolder folder;
  const Tests::LogCapture log;
  const Logging::TraceLogger& logger = *Logging::LogManager::GetLogger();
  const auto write = [](const std::wstring& path, const char* content) {
    std::ofstream(std::filesystem::path(path), std::ios::binary) << content;
  };
  const auto read = [](const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  const std::wstring source = folder / L"source";
  const std::wstring readOnly = folder / L"read only";
  write(source, "new");
  write(readOnly, "old");
  SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_READONLY);
  std::filesystem::create_directory(folder.Path() / "a folder");

  for (const std::wstring& to : {readOnly, folder / L"a folder", folder / L"missing\\file"}) {
    SCOPED_TRACE(::testing::PrintToString(to));
    ASSERT_FALSE(CopyFileContent(source, to, L"Win10SSwitch", logger));
    EXPECT_EQ(log.Lines().back(), L"error|Error while copying destination file " + to);
  }
  EXPECT_FALSE(CopyFileContent(folder / L"nothing", readOnly, L"Win10SSwitch", logger));
  EXPECT_EQ(log.Lines().back(), L"error|Error while copying source file " + folder / L"nothing");

  EXPECT_EQ(read(readOnly), "old");
  const std::filesystem::directory_iterator entries(folder.Path());
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 3);

  write(source, "");
  write(folder / L"longer", "longer");
  EXPECT_TRUE(CopyFileContent(source, folder / L"longer", L"Win10SSwitch", logger));
  EXPECT_EQ(read(folder / L"longer"), "");
}

// A disk that is full: the part that was begun goes away again.
TEST(CopyFileContentTest, AWriteThatStopsHalfwayLeavesNoPart) {
  Tests::FaultyFiles files;
  const Platform::MachineScope scope([&](Platform::Machine& machine) { machine.files = &files; });
  const TempFolder folder;
  std::ofstream(folder.Path() / "source") << "new";
  std::ofstream(folder.Path() / "target") << "old";
  files.writesStopHalfway = true;
  EXPECT_FALSE(CopyFileContent(folder / L"source", folder / L"target", L"Win10SSwitch",
                               *Logging::LogManager::GetLogger()));
  std::ifstream target(folder.Path() / "target");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(target), {}), "old");
  EXPECT_FALSE(std::filesystem::exists(folder.Path() / "target.part"));
}

TEST(ReadTextFileTest, AnswersNothingForWhatCannotBeRead) {
  const TempFolder folder;
  const Logging::TraceLogger& logger = *Logging::LogManager::GetLogger();
  EXPECT_EQ(ReadTextFile(folder.Path().wstring(), L"", logger), L"");

  const std::filesystem::path held = folder.Path() / "held";
  std::ofstream(held) << "\xEF\xBB\xBF/quiet";
  EXPECT_EQ(ReadTextFile(held.wstring(), L"", logger), L"/quiet");
  const Platform::UniqueHandle lock = Platform::AdoptFile(
      CreateFileW(held.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_EQ(ReadTextFile(held.wstring(), L"", logger), L"");

  std::ofstream(folder.Path() / "large") << "\xEF\xBB\xBF";
  std::filesystem::resize_file(folder.Path() / "large", kMaxTextFile + 1);
  EXPECT_EQ(ReadTextFile(folder / L"large", L"", logger), L"");
}

// A real program of a real user, started through its alias.
TEST_F(BehaviorTest, AParameterReachesTheStartedAppAsItWasGiven) {
  const std::filesystem::path aliases =
      programs.Path() / "AppData" / "Local" / "Microsoft" / "WindowsApps";
  std::filesystem::create_directories(aliases);
  std::filesystem::copy_file(Tests::ProbePath(), aliases / "Qubo.exe");
  console.userVariables = {{L"%userprofile%", programs.Path().wstring()}};
  console.installed[L"7C3B9E40.Qubo_r4x2m8kq7tn3b"] = L"Qubo_1";
  console.appsFolder = programs / L"";
  MakeFolder("Qubo_1");
  console.realProcesses = true;

  EXPECT_TRUE(Qubo::QuboUwpLaunchBehavior().Run(L"one \"two three\" & \u00E4"));
  const auto report = Tests::WaitForProbe((aliases / "Qubo.exe.out").wstring());
  ASSERT_TRUE(report.has_value());
  EXPECT_THAT(report->arguments, ElementsAre(L"one", L"two three", L"&", L"\u00E4"));
  EXPECT_EQ(report->workingDirectory, programs / L"Qubo_1");
  EXPECT_EQ(report->commandLine,
            L"\"" + (aliases / "Qubo.exe").wstring() + L"\" one \"two three\" & \u00E4");
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
