#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "launch/mcafee_helper.h"
#include "launch/qubo_behaviors.h"
#include "launch/registration_data.h"
#include "launch/software_check_behaviors.h"
#include "launch/text_files.h"
#include "launch/windows_mode_check_behavior.h"
#include "storage/cap_data_store.h"
#include "storage/store_faults.h"
#include "support/fake_console.h"
#include "support/log_capture.h"
#include "support/private_local_machine.h"
#include "support/registration_files.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

using State = RegistrationHelper::RegistrationState;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
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
  Tests::FakeConsole console;
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
  EXPECT_TRUE(sentra.IsInstalled());
  console.session = 0xFFFFFFFF;  // nobody is there
  EXPECT_FALSE(sentra.IsInstalled());

  registry.Set(kSentraKey, L"Version", REG_BINARY, {});
  console.calls.clear();
  EXPECT_TRUE(sentra.IsInstalled());
  EXPECT_THAT(console.calls, IsEmpty());  // the value answers; nobody is asked for a package
}

TEST_F(SoftwareCheckTest, FoldersTellPreloadedAndInstalled) {
  const Qubo::SentraSoftwareCheckBehavior sentra;
  const Qubo::McAfeeSoftwareCheckBehavior mcafee;
  MakeFolder("vx");
  std::ofstream(programs.Path() / "vx" / "SentraPre") << "a file is no folder";
  EXPECT_FALSE(sentra.IsPreloaded());
  std::filesystem::remove(programs.Path() / "vx" / "SentraPre");
  MakeFolder("vx/SentraPre");
  EXPECT_TRUE(sentra.IsPreloaded());
  EXPECT_FALSE(mcafee.IsPreloaded());
  MakeFolder("Vx/McAfeePre");
  EXPECT_TRUE(mcafee.IsPreloaded());
  EXPECT_FALSE(mcafee.IsInstalled());
  MakeFolder("Common Files/McAfee");
  EXPECT_TRUE(mcafee.IsInstalled());
  EXPECT_THROW(mcafee.IsUwpInstalled(), std::logic_error);

  const Tests::EnvironmentOverride tooLong(L"ProgramFiles", L"C:\\" + std::wstring(260, L'x'));
  EXPECT_FALSE(sentra.IsPreloaded());
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

  Storage::CapDataStore().persist("registration_full_sent", true);  // of another kind
  EXPECT_EQ(check.GetState(), State::Unknown);
  store.Block();
  EXPECT_EQ(check.GetState(), State::Unknown);
}

// The library of this machine is missing or unsigned, so the mode now is 0.
using WindowsModeCheckTest = BehaviorTest;

TEST_F(WindowsModeCheckTest, WasInSModeOnlyWithALockedFirstModeOnRecord) {
  using Storage::BsonElement;
  static const struct {
    BsonElement first;
    const wchar_t* logged = nullptr;
    bool was = false;
  } kCases[] = {
      {{}, L"-1", false},
      {BsonElement::Int32(2), L"2", true},
      {BsonElement::Int32(0), L"0", false},
      {BsonElement::Int64(2), L"-1", false},
      {BsonElement::Text("2"), L"-1", false},
  };
  for (const auto& c : kCases) {
    Storage::CapDataStore().mergeMember("OrvaneServiceDocument", "FirstSystemEnforcementMode",
                                        c.first);
    Qubo::WindowsModeCheckBehavior check;
    EXPECT_EQ(check.HasBeenInSMode(), c.was);
    EXPECT_FALSE(check.IsInSMode());
    const std::wstring start = L"info|.HasBeenInSMode ";
    EXPECT_TRUE(log.Has(start + L"Current Lockdown Policy is 0"));
    EXPECT_TRUE(log.Has(start + L"First Lockdown Policy is " + c.logged));
    EXPECT_EQ(log.Has(start + L"Detected S Mode Switch"), c.was);
    EXPECT_EQ(log.Has(start + L"Detected S Mode Switch 1"), c.was);
    log.Clear();
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
  store.Block();
  Qubo::WindowsModeCheckBehavior check;
  EXPECT_TRUE(log.Has(L"error|Could not retrive OrvaneService for WindowsModeCheckBehavior"));
  EXPECT_FALSE(check.HasBeenInSMode());
}

using McAfeeHelperTest = BehaviorTest;

TEST_F(McAfeeHelperTest, SaysWhichStepFailed) {
  static const struct {
    std::size_t failing;
    const wchar_t* line;
    const wchar_t* expanded;
  } kCases[] = {
      {0, L"warning|Problem while querying user's access token.", L""},
      {3, L"warning|Problem while expanding path.", L""},
      {4, L"error|Problem while reverting the impersonation.",
       L"C:\\Users\\ann\\AppData\\Roaming\\x"},
  };
  for (const auto& c : kCases) {
    log.Clear();
    console.FailCall(c.failing);
    std::wstring expanded;
    const bool done =
        McAfeeHelper().expand_path_impersonated_as_loggedin_user(L"%AppData%\\x", expanded);
    EXPECT_NE(done, expanded.empty());
    EXPECT_EQ(expanded, c.expanded);
    EXPECT_THAT(log.Lines(),
                ElementsAre(L"info|Attempting to impersonate logged in user.", c.line));
  }
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
  Tests::RegistrationFiles data{console};
  const Logging::TraceLogger& logger = *Logging::LogManager::GetLogger();
};

TEST_F(RegistrationDataTest, CopiesTheMachinesDataOverTheUsersWithTheUsersRightsAlone) {
  Tests::FaultyFiles files;
  int accesses = 0;
  files.onContent = [&] {
    ++accesses;
    EXPECT_TRUE(console.acting);
  };
  const Platform::MachineScope inserted(
      [&](Platform::Machine& machine) { machine.files = &files; });
  const std::string content("\xFF\xFE<\0x\0\r\n\0\x1A", 9);
  data.WriteSource(content);
  std::ofstream(data.Destination()) << "older and longer than what comes";
  EXPECT_TRUE(CopyRegistrationData(L"client", logger));
  EXPECT_EQ(data.Copied(), content);
  data.WriteSource("second");
  EXPECT_TRUE(RefreshRegistrationData(logger));
  EXPECT_EQ(data.Copied(), "second");
  EXPECT_EQ(accesses, 6);
  EXPECT_FALSE(console.acting);

  // Neither path, and then not the right to copy.
  for (const std::size_t call : {std::size_t{3}, std::size_t{8}, std::size_t{12}}) {
    console.FailCall(call);
    EXPECT_FALSE(CopyRegistrationData(L"client", logger));
    ASSERT_EQ(console.calls[call], call == 12 ? "Impersonate" : "ExpandForUser");
  }
  EXPECT_EQ(accesses, 6);
}

TEST_F(RegistrationDataTest, NamesTheSideThatFailed) {
  EXPECT_FALSE(CopyRegistrationData(L"client", logger));
  EXPECT_EQ(log.Lines().back(),
            L"error|Error while copying source file " + data.Source().wstring());
  EXPECT_EQ(log.Callers().back(), L"client");
  data.WriteSource("x");
  std::filesystem::remove(data.Destination().parent_path());
  EXPECT_FALSE(RefreshRegistrationData(logger));
  EXPECT_EQ(log.Lines().back(),
            L"error|Error while copying destination file " + data.Destination().wstring());
  EXPECT_EQ(log.Callers().back(), L"Win10SSwitch");
}

// A folder of files and what is logged about them.
class TextFileTest : public ::testing::Test {
 protected:
  void Write(const wchar_t* name, std::string_view content) const {
    std::ofstream(folder.Path() / name, std::ios::binary) << content;
  }
  std::string Read(const wchar_t* name) const {
    std::ifstream file(folder.Path() / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::wstring Text(const wchar_t* name) const {
    return ReadTextFile(folder / name, L"Win10SSwitch", logger);
  }
  bool Copy(const wchar_t* from, const wchar_t* to) const {
    return CopyFileContent(folder / from, folder / to, L"Win10SSwitch", logger);
  }

  TempFolder folder;
  Tests::LogCapture log;
  const Logging::TraceLogger& logger = *Logging::LogManager::GetLogger();
};

TEST_F(TextFileTest, AFileHasATextOnlyIfItCanBeReadAndHasAByteOrderMark) {
  Write(L"marked", "\xEF\xBB\xBF/quiet");
  EXPECT_EQ(Text(L"marked"), L"/quiet");
  EXPECT_EQ(Text(L"missing"), L"");
  EXPECT_EQ(Text(L""), L"");  // a folder
  Write(L"large", "\xEF\xBB\xBF");
  std::filesystem::resize_file(folder.Path() / "large", kMaxTextFile + 1);
  EXPECT_EQ(Text(L"large"), L"");
  EXPECT_THAT(log.Lines(), IsEmpty());

  Write(L"plain", "/quiet");
  EXPECT_EQ(Text(L"plain"), L"");
  EXPECT_THAT(log.Lines(),
              ElementsAre(L"warning|Error Finding BOM for file: " + folder / L"plain"));
  EXPECT_THAT(log.Callers(), ElementsAre(L"Win10SSwitch"));
}

TEST_F(TextFileTest, ADestinationThatCannotBeWrittenKeepsItsContentAndNoPartIsLeft) {
  Write(L"source", "new");
  Write(L"read only", "old");
  SetFileAttributesW((folder / L"read only").c_str(), FILE_ATTRIBUTE_READONLY);
  Write(L"target", "old");
  std::filesystem::create_directory(folder.Path() / "a folder");
  for (const wchar_t* to : {L"read only", L"a folder", L"missing\\file"}) {
    SCOPED_TRACE(::testing::PrintToString(std::wstring(to)));
    EXPECT_FALSE(Copy(L"source", to));
    EXPECT_EQ(log.Lines().back(), L"error|Error while copying destination file " + folder / to);
  }
  EXPECT_FALSE(Copy(L"nothing", L"target"));
  EXPECT_EQ(log.Lines().back(), L"error|Error while copying source file " + folder / L"nothing");
  {
    // A disk that is full.
    Tests::FaultyFiles files;
    const Platform::MachineScope scope([&](Platform::Machine& machine) { machine.files = &files; });
    files.writesStopHalfway = true;
    EXPECT_FALSE(Copy(L"source", L"target"));
  }
  EXPECT_EQ(Read(L"read only"), "old");
  EXPECT_EQ(Read(L"target"), "old");
  const std::filesystem::directory_iterator entries(folder.Path());
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 4);

  Write(L"source", "");
  EXPECT_TRUE(Copy(L"source", L"target"));
  EXPECT_EQ(Read(L"target"), "");
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
