#include "service/s_mode.h"

#include <filesystem>
#include <fstream>
#include <string>

#include <windows.h>

#include <gmock/gmock.h>

#include "launch/lockdown_mode.h"
#include "platform/machine.h"
#include "service/private_lockdown_policy.h"
#include "simulator/fault_injection.h"
#include "storage/cap_data_store.h"
#include "support/handle_gauge.h"
#include "support/log_capture.h"
#include "support/probe.h"
#include "support/temp_folder.h"
#include "support/test_pki.h"

namespace Vx::Tests {
namespace {

namespace Orvane = Tessel::Server::Services::Orvane;
using Storage = Tessel::Server::Storage::CapDataStore;
using Element = Tessel::Server::Storage::BsonElement;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kDocument[] = "OrvaneServiceDocument";
constexpr char kFirstMode[] = "FirstSystemEnforcementMode";

TEST(LockdownPolicyTest, OnlyALibraryWithAPinnedSignatureIsLoadedAndItIsFreedAgain) {
  static constexpr struct {
    const wchar_t* fileName;
    std::int32_t mode;
  } kCases[] = {
      {L"pinned.dll", 2}, {L"general.dll", 2}, {L"unpinned.dll", 0}, {L"unsigned.dll", 0}};
  const LockdownMode locked(2);
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.fileName)));
    const PrivateLockdownPolicy policy(c.fileName);
    const LogCapture log;
    EXPECT_EQ(Orvane::QueryLockoutMode(L"caller"), c.mode);
    EXPECT_EQ(GetModuleHandleW(policy.Path().c_str()), nullptr);
    EXPECT_THAT(log.Lines(), Not(Contains(HasSubstr(L"QueryLockoutMode"))));
  }
}

TEST(LockdownPolicyTest, ALibraryThatFailsIsFreedAndTheModeIsWhatItLeft) {
  const PrivateLockdownPolicy policy;
  const LogCapture log;
  const auto before = HandleGauge();
  static constexpr struct {
    const wchar_t* variable;  // of the stand-in
    std::int32_t mode;
  } kCases[] = {{L"", 0}, {L"2!", 2}};
  for (const auto& c : kCases) {
    const EnvironmentOverride failing(L"VX_LOCKDOWN_MODE", c.variable);
    EXPECT_EQ(Orvane::QueryLockoutMode(L"caller"), c.mode);
    EXPECT_EQ(log.Lines().back(),
              L"warning|caller.QueryLockoutMode - failed on function "
              L"WldpQueryWindowsLockdownMode with HRESULT 0x80004001");
    EXPECT_EQ(GetModuleHandleW(policy.Path().c_str()), nullptr);
  }
  EXPECT_EQ(HandleGauge(), before);
}

TEST(LockdownPolicyTest, ALibraryThatDoesNotLoadMeansUnlocked) {
  const PrivateLockdownPolicy policy;
  const LockdownMode locked(2);
  Simulator::FaultInjection faults;
  const Platform::MachineScope scope([&](Platform::Machine& machine) { faults.Install(machine); });
  faults.FailNamed("LockdownLibraries.Load");
  const LogCapture log;
  EXPECT_EQ(Orvane::QueryLockoutMode(L"caller"), 0);
  EXPECT_EQ(log.Lines().back(), L"warning|caller.QueryLockoutMode failed to load dll " +
                                    policy.Path() + L" with error: 5");
}

class FirstModeTest : public testing::Test {
 protected:
  void Record() const { Orvane::SetFirstLockDownMode(logger); }

  PrivateStore store;
  LogCapture log;
  const Tessel::Server::Logging::TraceLogger& logger =
      *Tessel::Server::Logging::LogManager::GetLogger();
};

TEST_F(FirstModeTest, IsWrittenOnceAndOnlyOverWhatIsNoMode) {
  static const struct {
    Element stored;
    const wchar_t* first = nullptr;
    bool written = false;
  } kCases[] = {
      {{}, L"-1", true},
      {Element::Int32(0), L"0", false},
      {Element::Int32(-5), L"-5", true},
      {Element::Int64(0), L"-1", true},
      {Element::Text("0"), L"-1", true},
  };
  const PrivateLockdownPolicy policy;
  const LockdownMode locked(2);
  Storage().mergeMember(kDocument, "other", Element::Text("kept"));
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.first)));
    Storage().mergeMember(kDocument, kFirstMode, c.stored);
    log.Clear();
    Record();
    const std::wstring line = L"info|startup_task.SetFirstLockDownMode ";
    EXPECT_EQ(log.Lines().front(), line + L"First Lockdown Policy is " + c.first);
    EXPECT_EQ(log.Has(line + L"Current Lockdown Policy is 2"), c.written);
    const auto document = Storage().readDocument(kDocument);
    EXPECT_EQ(document.Find(kFirstMode)->AsInt32(), c.written ? 2 : c.stored.AsInt32());
    EXPECT_EQ(document.Find("other")->AsText(), "kept");
  }
}

TEST_F(FirstModeTest, AStoreThatCannotBeOpenedIsPassedOverInSilence) {
  store.Block();
  Record();
  EXPECT_THAT(log.Lines(), Not(Contains(HasSubstr(L"SetFirstLockDownMode"))));
}

// The preloaded software lies at fixed paths; what a test puts there goes away with it.
class SwitchSoftwareTest : public testing::Test {
 protected:
  SwitchSoftwareTest() {
    CreateDirectoryW(L"C:\\Program Files\\Vx", nullptr);
    CreateDirectoryW(kFolder, nullptr);
  }
  ~SwitchSoftwareTest() override {
    for (const std::wstring& path : {kProgram, kArguments, kReport}) RemoveFile(path);
    RemoveFolder(kFolder);
    RemoveDirectoryW(L"C:\\Program Files\\Vx");
  }

  void HoldProgram(const wchar_t* name) const {
    CopyFileW(PkiFile(name).c_str(), kProgram.c_str(), FALSE);
  }
  void HoldArguments(const std::string& bytes) const {
    std::ofstream(std::filesystem::path(kArguments), std::ios::binary) << bytes;
  }

  static constexpr const wchar_t* kFolder = L"C:\\Program Files\\Vx\\McAfeePre";
  const std::wstring kProgram = L"C:\\Program Files\\Vx\\McAfeePre\\DADUpdater.exe";
  const std::wstring kArguments = L"C:\\Program Files\\Vx\\McAfeePre\\McAfeePar.txt";
  const std::wstring kReport = kProgram + L".out";
  PrivateStore store;
  LogCapture log;
};

TEST_F(SwitchSoftwareTest, StartsTheCheckedProgramWithTheArgumentsOfItsFile) {
  HoldProgram(L"pinned.exe");
  HoldArguments(std::string("\xFF\xFE/\0q\0 \0\"\0a\0 \0b\0\"\0", 18));
  log.Clear();
  EXPECT_TRUE(Orvane::Launch10SSwitchSoftwares());
  const auto report = WaitForProbe(kReport);
  ASSERT_TRUE(report.has_value());
  EXPECT_EQ(report->commandLine, L"\"" + kProgram + L"\" /q \"a b\"");
  EXPECT_THAT(report->arguments, ElementsAre(L"/q", L"a b"));
  EXPECT_EQ(log.Lines().front(),
            L"info|Vx::Tessel::Security::VxAuthenticodeHelper::AquireFileReadOnlyLock(" + kProgram +
                L") : succeeded");
  EXPECT_EQ(log.Lines().back(), L"info|CreateProcess(" + kProgram + L") : succeeded");
}

TEST_F(SwitchSoftwareTest, StartsNothingThatIsIncompleteOrNotTrusted) {
  EXPECT_FALSE(Orvane::Launch10SSwitchSoftwares());
  HoldArguments("\xEF\xBB\xBF/q");
  EXPECT_FALSE(Orvane::Launch10SSwitchSoftwares());
  EXPECT_THAT(log.Lines(), IsEmpty());
  for (const wchar_t* name : {L"unsigned.exe", L"unpinned.exe", L"general.exe", L"tampered.exe"}) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(name)));
    HoldProgram(name);
    log.Clear();
    EXPECT_FALSE(Orvane::Launch10SSwitchSoftwares());
    EXPECT_EQ(log.Lines().back(),
              L"error|class Vx::Tessel::Server::Services::Orvane::OrvaneService."
              L"LaunchExeFor10SSwitch unable to launch " +
                  kProgram + L" not trusted");
  }
  RemoveFile(kArguments);
  log.Clear();
  EXPECT_FALSE(Orvane::Launch10SSwitchSoftwares());
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(SwitchSoftwareTest, NeedsAPathAndSaysSo) {
  for (const wchar_t* path : {L"", static_cast<const wchar_t*>(nullptr)}) {
    log.Clear();
    EXPECT_FALSE(Orvane::LaunchExeFor10SSwitch(path, L""));
    EXPECT_THAT(log.Lines(),
                ElementsAre(L"error|class Vx::Tessel::Server::Services::Orvane::OrvaneService."
                            L"LaunchExeFor10SSwitch - pathToExecute cannot be null"));
  }
}

}  // namespace
}  // namespace Vx::Tests
