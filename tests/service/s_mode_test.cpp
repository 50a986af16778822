#include "service/s_mode.h"

#include <filesystem>
#include <string>

#include <windows.h>

#include <gmock/gmock.h>

#include "companion/windows_mode.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/unique_handle.h"
#include "service/simulated_service.h"
#include "storage/cap_data_store.h"
#include "support/log_trap.h"
#include "support/process_gauges.h"
#include "support/temp_folder.h"
#include "support/test_pki.h"

namespace Vx::Tests {
namespace {

namespace Orvane = Tessel::Server::Services::Orvane;
using Storage = Tessel::Server::Storage::CapDataStore;
using Element = Tessel::Server::Storage::BsonElement;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kDocument[] = "OrvaneServiceDocument";
constexpr char kFirstMode[] = "FirstSystemEnforcementMode";

// A Windows folder for this process only, in a protected place, whose lockdown policy library is a
// stand-in.
class PrivateLockdownPolicy {
 public:
  // `library` is one of the signed copies of the test authority.
  explicit PrivateLockdownPolicy(const wchar_t* library = L"pinned.dll") {
    std::filesystem::create_directory(folder / L"System32");
    std::filesystem::copy_file(PkiFile(library), Path());
  }
  PrivateLockdownPolicy(const PrivateLockdownPolicy&) = delete;
  PrivateLockdownPolicy& operator=(const PrivateLockdownPolicy&) = delete;
  ~PrivateLockdownPolicy() {
    RemoveFile(Path());
    RemoveFolder(folder / L"System32");
  }

  std::wstring Path() const { return folder / L"System32\\wldp.dll"; }

 private:
  ProtectedFolder folder;
  EnvironmentOverride windows{L"windir", folder.Path()};
};

// Sets the mode that the stand-in for the policy library returns while this object lives.
struct LockdownMode : EnvironmentOverride {
  explicit LockdownMode(const wchar_t* mode) : EnvironmentOverride(L"VX_LOCKDOWN_MODE", mode) {}
};

TEST(LockdownPolicyTest, OnlyALibraryWithAPinnedSignatureIsLoadedAndItIsFreedAgain) {
  static constexpr struct {
    const wchar_t* fileName;
    std::int32_t mode;
  } kCases[] = {
      {L"pinned.dll", 2}, {L"general.dll", 2}, {L"unpinned.dll", 0}, {L"unsigned.dll", 0}};
  const LockdownMode locked(L"2");
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.fileName)));
    const PrivateLockdownPolicy policy(c.fileName);
    const LogCapture log;
    bool writable = true;
    const LogTrap judged(L"GetSecurityCatalogInfo - File", 1, [&] {
      writable = static_cast<bool>(
          Platform::CurrentMachine().files->Open(policy.Path(), Platform::FileUse::Change));
    });
    EXPECT_EQ(Orvane::QueryLockoutMode(L"caller"), c.mode);
    EXPECT_FALSE(writable);
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
    const LockdownMode failing(c.variable);
    EXPECT_EQ(Orvane::QueryLockoutMode(L"caller"), c.mode);
    EXPECT_EQ(log.Lines().back(),
              L"warning|caller.QueryLockoutMode - failed on function "
              L"WldpQueryWindowsLockdownMode with HRESULT 0x80004001");
    EXPECT_EQ(GetModuleHandleW(policy.Path().c_str()), nullptr);
  }
  EXPECT_EQ(HandleGauge(), before);
}

class SModeTest : public SimulatedServiceTest {};

TEST_F(SModeTest, APolicyLibraryThatDoesNotLoadMeansUnlocked) {
  const PrivateLockdownPolicy policy;
  machine.system.SetLockdownMode(2);
  machine.system.FailLockdownLibrary(5);
  EXPECT_EQ(Orvane::QueryLockoutMode(L"caller"), 0);
  EXPECT_EQ(log.Lines().back(), L"warning|caller.QueryLockoutMode failed to load dll " +
                                    policy.Path() + L" with error: 5");
}

TEST_F(SModeTest, AMachineThatIsLockedNowHasNotBeenInSMode) {
  const PrivateLockdownPolicy policy;
  machine.system.SetLockdownMode(2);
  Storage().mergeMember(kDocument, kFirstMode, Element::Int32(2));
  Orvane::Qubo::WindowsModeCheckBehavior check;
  EXPECT_TRUE(check.IsInSMode());
  EXPECT_FALSE(check.HasBeenInSMode());
}

TEST_F(SModeTest, TheFirstModeIsWrittenOnceAndOnlyOverWhatIsNoMode) {
  static const struct {
    Element stored;
    const wchar_t* first = nullptr;
    bool written = false;
  } kCases[] = {{{}, L"-1", true},
                {Element::Int32(0), L"0", false},
                {Element::Int32(-5), L"-5", true},
                {Element::Int64(0), L"-1", true},
                {Element::Text("0"), L"-1", true}};
  const PrivateLockdownPolicy policy;
  machine.system.SetLockdownMode(2);
  Storage().mergeMember(kDocument, "other", Element::Text("kept"));
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.first));
    Storage().mergeMember(kDocument, kFirstMode, c.stored);
    log.Clear();
    Orvane::SetFirstLockDownMode(*Tessel::Server::Logging::LogManager::GetLogger());
    EXPECT_TRUE(log.Lines().front().ends_with(c.first));
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"Policy is 2")).Times(c.written ? 1 : 0));
    const auto document = Storage().readDocument(kDocument);
    EXPECT_EQ(document.Find(kFirstMode)->AsInt32(), c.written ? 2 : c.stored.AsInt32());
    EXPECT_EQ(document.Find("other")->AsText(), "kept");
  }
}

// The preloaded software has fixed paths. The fixture removes the files that a test puts there.
class SwitchSoftwareTest : public SimulatedServiceTest {
 protected:
  SwitchSoftwareTest() {
    CreateDirectoryW(L"C:\\Program Files\\Vx", nullptr);
    CreateDirectoryW(kFolder, nullptr);
    log.Clear();
  }
  ~SwitchSoftwareTest() override {
    RemoveFile(kProgram);
    RemoveFolder(kFolder);
    RemoveDirectoryW(L"C:\\Program Files\\Vx");
  }

  void HoldProgram(const wchar_t* name) const {
    CopyFileW(PkiFile(name).c_str(), kProgram.c_str(), FALSE);
  }

  static constexpr const wchar_t* kFolder = L"C:\\Program Files\\Vx\\McAfeePre";
  const std::wstring kProgram = L"C:\\Program Files\\Vx\\McAfeePre\\DADUpdater.exe";
  const std::wstring kArguments = L"C:\\Program Files\\Vx\\McAfeePre\\McAfeePar.txt";
};

TEST_F(SwitchSoftwareTest, StartsTheCheckedProgramWithTheArgumentsOfItsFile) {
  HoldProgram(L"pinned.exe");
  machine.files.Add(kArguments, std::string("\xFF\xFE/\0q\0 \0\"\0a\0 \0b\0\"\0", 18));
  EXPECT_TRUE(host.service->Launch10SSwitchSoftwares());
  EXPECT_THAT(Started(), testing::ElementsAre(L"\"" + kProgram + L"\" /q \"a b\""));
  EXPECT_EQ(machine.processes.Started().front().user, L"SYSTEM");
  EXPECT_EQ(log.Lines().front(),
            L"info|Vx::Tessel::Security::VxAuthenticodeHelper::AquireFileReadOnlyLock(" + kProgram +
                L") : succeeded");
  EXPECT_EQ(log.Lines().back(), L"info|CreateProcess(" + kProgram + L") : succeeded");
}

TEST_F(SwitchSoftwareTest, StartsNothingWithoutItsArguments) {
  HoldProgram(L"pinned.exe");
  machine.files.Add(kArguments, "/q");
  machine.faults.FailNamed("Files.Read");
  EXPECT_FALSE(host.service->Launch10SSwitchSoftwares());
  EXPECT_THAT(log.Lines(),
              testing::ElementsAre(L"warning|Error while reading text file " + kArguments));
  machine.files.Add(kArguments, std::string(40000, 'x'));
  machine.faults.Clear();
  EXPECT_FALSE(host.service->Launch10SSwitchSoftwares());
  EXPECT_EQ(log.Lines().back(), L"info|CreateProcess(" + kProgram + L") : FAILED");
  EXPECT_THAT(Started(), IsEmpty());
}

TEST_F(SwitchSoftwareTest, StartsNothingThatItCannotLock) {
  HoldProgram(L"pinned.exe");
  const auto openForWriting = [&] {
    return Platform::AdoptFile(
        CreateFileW(kProgram.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr));
  };
  Platform::UniqueHandle open = openForWriting();
  const LogTrap letGo(L" : FAILED", 1, [&] { open.reset(); });
  const LogTrap openAgain(L"trusted by windows = yes", 1, [&] { open = openForWriting(); });
  EXPECT_FALSE(Orvane::LaunchExeFor10SSwitch(kProgram.c_str(), L""));
  EXPECT_THAT(log.Lines(), Contains(HasSubstr(L" : FAILED")).Times(2));
  EXPECT_THAT(log.Lines(), Contains(HasSubstr(L" unable to launch ")).Times(1));
  EXPECT_THAT(Started(), IsEmpty());
}

TEST_F(SwitchSoftwareTest, StartsNothingThatIsIncompleteOrNotTrusted) {
  machine.files.Add(kArguments, "\xEF\xBB\xBF/q");
  EXPECT_FALSE(host.service->Launch10SSwitchSoftwares());
  EXPECT_THAT(log.Lines(), IsEmpty());
  const std::wstring line = L"error|class Vx::Tessel::Server::Services::Orvane::OrvaneService.";
  for (const wchar_t* name : {L"unsigned.exe", L"unpinned.exe", L"general.exe", L"tampered.exe"}) {
    SCOPED_TRACE(testing::PrintToString(name));
    HoldProgram(name);
    EXPECT_FALSE(host.service->Launch10SSwitchSoftwares());
    EXPECT_EQ(log.Lines().back(),
              line + L"LaunchExeFor10SSwitch unable to launch " + kProgram + L" not trusted");
  }
  machine.files.Remove(kArguments);
  log.Clear();
  EXPECT_FALSE(host.service->Launch10SSwitchSoftwares());
  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_FALSE(Orvane::LaunchExeFor10SSwitch(L"", L""));
  EXPECT_EQ(log.Lines().back(), line + L"LaunchExeFor10SSwitch - pathToExecute cannot be null");
  EXPECT_THAT(Started(), IsEmpty());
}

}  // namespace
}  // namespace Vx::Tests
