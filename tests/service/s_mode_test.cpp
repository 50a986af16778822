#include "service/s_mode.h"

#include "companion/windows_mode.h"

#include "platform/files.h"
#include "service/simulated_service.h"
#include "support/test.h"

namespace Vx::Tests {
namespace {

namespace Orvane = Tessel::Server::Services::Orvane;

// A private Windows folder in a protected location, with a stand-in for the policy library.
class PrivateLockdownPolicy {
 public:
  // `library` is a copy that the test authority signed.
  explicit PrivateLockdownPolicy(const wchar_t* library = L"pinned.dll") {
    std::filesystem::create_directory(folder / L"System32");
    std::filesystem::copy_file(PkiFile(library), Path());
  }

  std::wstring Path() const { return folder / L"System32\\wldp.dll"; }

 private:
  ProtectedFolder folder;
  EnvironmentOverride windows{L"windir", folder.Path()};
};

constexpr wchar_t kModeVariable[] = L"VX_LOCKDOWN_MODE";  // read by the stand-in library

TEST(LockdownPolicyTest, OnlyALibraryWithAPinnedSignatureIsLoadedAndItIsFreedAgain) {
  static constexpr std::pair<const wchar_t*, std::int32_t> kCases[] = {
      {L"pinned.dll", 2}, {L"general.dll", 2}, {L"unpinned.dll", 0}, {L"unsigned.dll", 0}};
  const EnvironmentOverride locked(kModeVariable, L"2");
  for (const auto& [fileName, mode] : kCases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(fileName)));
    const PrivateLockdownPolicy policy(fileName);
    const LogCapture log;
    bool writable = true;
    const LogTrap judged(L"GetSecurityCatalogInfo - File", 1, [&] {
      writable = static_cast<bool>(
          Platform::CurrentMachine().files->Open(policy.Path(), Platform::FileUse::Change));
    });
    EXPECT_EQ(Orvane::QueryLockoutMode(L"caller"), mode);
    EXPECT_FALSE(writable);
    EXPECT_EQ(GetModuleHandleW(policy.Path().c_str()), nullptr);
    EXPECT_THAT(log.Lines(), Not(Contains(HasSubstr(L"QueryLockoutMode"))));
  }
}

TEST(LockdownPolicyTest, ALibraryThatFailsIsFreedAndTheModeIsWhatItLeft) {
  const PrivateLockdownPolicy policy;
  const LogCapture log;
  const auto before = HandleGauge();
  for (const auto& [variable, mode] : {std::pair(L"", 0), {L"2!", 2}}) {
    const EnvironmentOverride failing(kModeVariable, variable);
    EXPECT_EQ(Orvane::QueryLockoutMode(L"caller"), mode);
    EXPECT_EQ(log.Lines().back(),
              L"warning|caller.QueryLockoutMode - failed on function "
              L"WldpQueryWindowsLockdownMode with HRESULT 0x80004001");
    EXPECT_EQ(GetModuleHandleW(policy.Path().c_str()), nullptr);
  }
  EXPECT_EQ(HandleGauge(), before);
}

using SModeTest = SimulatedServiceTest;

TEST_F(SModeTest, APolicyLibraryThatDoesNotLoadMeansUnlocked) {
  const PrivateLockdownPolicy policy;
  machine.system.SetLockdownMode(2);
  machine.system.FailLockdownLibrary(5);
  EXPECT_EQ(Orvane::QueryLockoutMode(L"caller"), 0);
  EXPECT_EQ(log.Lines().back(), L"warning|caller.QueryLockoutMode failed to load dll " +
                                    policy.Path() + L" with error: 5");
}

}  // namespace
}  // namespace Vx::Tests
