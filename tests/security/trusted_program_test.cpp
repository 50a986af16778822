#include "security/trusted_program.h"

#include "platform/files.h"
#include "platform/trust_provider.h"
#include "platform/windows/capabilities.h"
#include "platform/windows/deferred_library.h"
#include "simulator/fault_injection.h"
#include "support/test.h"

namespace Vx::Tessel::Security {

namespace {

constexpr wchar_t kPinned[] = L"pinned.exe";

std::wstring Checked(const std::wstring& path) {
  const auto program = TrustedProgram::Check(path).program;
  return program == nullptr ? std::wstring() : program->Path();
}

// By name both checks see the genuine program. The locked file decides.
TEST(TrustedProgramTest, IsWhatTheLockHoldsWhereverALinkLeadsNow) {
  const Tests::ProtectedFolder genuine;
  const Tests::ProtectedFolder forged;
  const std::wstring program = genuine.Hold(kPinned);
  std::filesystem::copy_file(Tests::PkiFile(L"unsigned.exe"), forged / kPinned);
  const Tests::ProtectedFolder crossing;
  const std::wstring link = crossing / L"link";
  const struct {
    const std::wstring& atTheLock;
    const std::wstring& atTheCheck;
    std::wstring started;
  } cases[] = {
      {genuine.Path(), genuine.Path(), program},
      {forged.Path(), genuine.Path(), {}},
      {genuine.Path(), forged.Path(), {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.atTheLock + L", then " + c.atTheCheck));
    std::optional<Tests::DirectoryLink> way(std::in_place, link, c.atTheLock);
    const Tests::LogTrap turn(L" : succeeded", 1, [&] {
      way.reset();
      way.emplace(link, c.atTheCheck);
    });
    EXPECT_EQ(Checked(link + L"\\" + kPinned), c.started);
  }
  EXPECT_EQ(Checked(program), program);
  // Where a folder distinguishes case, another spelling could be another file.
  EXPECT_EQ(Checked(genuine / L"PINNED.EXE"), program);
}

// It could be huge. Without the lock, the place is that of the name.
TEST(TrustedProgramTest, ReadsNothingOfAFileThatALinkReachesElsewhere) {
  const Tests::TempFolder elsewhere;
  std::filesystem::copy_file(Tests::PkiFile(kPinned), elsewhere / kPinned);
  const Tests::ProtectedFolder folder;
  const Tests::DirectoryLink link(folder / L"link", elsewhere.Path().wstring());
  for (const bool locked : {true, false}) {
    SCOPED_TRACE(locked ? "locked" : "open in another process");
    const auto writer = locked ? Platform::Files::Opened::Failure(0)
                               : Platform::CurrentMachine().files->Open(elsewhere / kPinned,
                                                                        Platform::FileUse::Change);
    Simulator::FaultInjection faults;
    const Platform::MachineScope scope(
        [&](Platform::Machine& machine) { faults.Install(machine); });
    EXPECT_EQ(TrustedProgram::Check(folder / L"link\\pinned.exe").reason,
              Server::Records::Reason::Place);
    EXPECT_THAT(faults.Calls(), Each(Not(StartsWith("TrustProvider."))));
  }
}

TEST(TrustedProgramTest, IsNoneIfWindowsRefusesAnyCallThatItNeeds) {
  const Tests::ProtectedFolder folder;
  std::filesystem::create_directory(folder / L"%x%");
  std::filesystem::copy_file(Tests::PkiFile(kPinned), folder / L"%x%\\pinned.exe");
  // Makes the most calls: a percent sign is expanded, and the place of another spelling is judged
  // beside that of the locked file.
  const std::wstring text = folder / L"%x%\\PINNED.EXE";
  Simulator::FaultInjection faults;
  const Platform::MachineScope scope([&](Platform::Machine& machine) { faults.Install(machine); });
  std::map<std::string, int> spare;  // calls that were refused while the program was trusted
  std::vector<std::string> calls;
  for (std::size_t call = 0; call <= calls.size(); ++call) {
    faults.FailCall(call);
    const bool trusted = !Checked(text).empty();
    calls = faults.Calls();
    if (trusted) ++spare[call < calls.size() ? calls[call] : "none"];
  }
  // The path rule is applied five times, and two of its prefixes are of other folders. The text is
  // a full path already, a lock is tried twice, and the signature is in the file, not in a catalog.
  EXPECT_THAT(spare, ElementsAre(Pair("Environment.Expand", 10), Pair("Files.FullPath", 3),
                                 Pair("Files.OpenReadLocked", 1),
                                 Pair("TrustProvider.FindCatalog", 1), Pair("none", 1)));
}

// The library that judges signatures is loaded when the first program is judged.
TEST(TrustedProgramTest, IsNoneWithoutTheLibraryThatJudgesSignatures) {
  const Tests::ProtectedFolder folder;
  const std::wstring program = folder.Hold(kPinned);
  const struct {
    const wchar_t* name;
    DWORD error;
    std::wstring started;
  } cases[] = {
      {L"wintrust.dll", ERROR_SUCCESS, program},
      {L"no_such_library.dll", ERROR_MOD_NOT_FOUND, {}},
      {L"kernel32.dll", ERROR_PROC_NOT_FOUND, {}},
      // It lies beside this program, where a search by name finds it.
      {L"lockdown_policy.dll", ERROR_MOD_NOT_FOUND, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.name)));
    Platform::DeferredLibrary library(c.name);
    const auto trust = Platform::MakeTrustProvider(library);
    const Platform::MachineScope scope(
        [&](Platform::Machine& machine) { machine.trustProvider = trust.get(); });
    EXPECT_EQ(Checked(program), c.started);
    const Platform::CatalogHit hit{
        .catalogPath = program, .memberTag = {}, .memberPath = program, .hash = {}};
    if (c.error == ERROR_SUCCESS) continue;
    EXPECT_EQ(trust->VerifyEmbedded(program, 0).result, HRESULT_FROM_WIN32(c.error));
    EXPECT_EQ(trust->VerifyInCatalog(hit, 0).result, HRESULT_FROM_WIN32(c.error));
    Platform::CatalogFailure failure;
    EXPECT_FALSE(trust->FindCatalog(program, failure));
    EXPECT_EQ(failure.error, c.error);
  }
}

// A pipe would get a connection of SYSTEM, and a read from it could block for ever.
TEST(TrustedProgramTest, OpensNothingWhoseTextIsNoFileInAnAllowedPlace) {
  const std::wstring pipe = LR"(\\.\pipe\VxTest-)" + std::to_wstring(GetCurrentProcessId());
  const Platform::UniqueHandle server = Platform::AdoptFile(CreateNamedPipeW(
      pipe.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE | PIPE_NOWAIT, 1, 64, 64, 0, nullptr));
  ASSERT_NE(server, nullptr);
  const std::wstring notOnADrive = L"is not a full path on a drive";
  const std::wstring outside;  // the lines of the path rule
  const struct {
    std::wstring path;
    std::wstring reason;
  } cases[] = {
      {pipe, notOnADrive},
      {LR"(\\localhost)" + pipe.substr(3), notOnADrive},
      {LR"(\\?)" + pipe.substr(3), notOnADrive},
      {LR"(\\.\PhysicalDrive0)", notOnADrive},
      {LR"(\\.\C:)", notOnADrive},
      {L"explorer.exe", notOnADrive},
      {LR"(%windir%\explorer.exe)", notOnADrive},
      {LR"(C:\windows\%OS%\x.exe)", L"holds a variable"},
      {std::wstring(L"C:\\windows\\explorer.exe\0.txt", 28), L"holds a control character"},
      {LR"(Q:\WindowsApps\App\x.exe)", L"is on no drive of this machine"},
      {LR"(C:\users\x.exe)", outside},
      {LR"(C:\windows\..\users\x.exe)", outside},
      {LR"(C:\windows\COM1)", outside},
      {LR"(C:\windows\explorer.exe:stream)", outside},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.path));
    const Tests::LogCapture log;
    EXPECT_EQ(Checked(c.path), L"");
    if (!c.reason.empty()) {
      EXPECT_THAT(log.Lines(), ElementsAre(AllOf(StartsWith(L"warning|TrustedProgram - ["),
                                                 EndsWith(L"because it " + c.reason))));
    } else {
      EXPECT_THAT(log.Lines(), Each(HasSubstr(L"VxAuthenticodeHelper::IsPathAllowed - ")));
      EXPECT_FALSE(log.Lines().empty());
    }
  }
  EXPECT_FALSE(ConnectNamedPipe(server.get(), nullptr));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_PIPE_LISTENING}) << "nothing has connected";
}

}  // namespace

}  // namespace Vx::Tessel::Security
