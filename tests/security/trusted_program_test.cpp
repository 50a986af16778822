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

// A link that leads to a forged program during the lock or during the check must be detected.
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
  // The true spelling is used. In a case-sensitive folder, another one could name another file.
  EXPECT_EQ(Checked(genuine / L"PINNED.EXE"), program);
}

// The file could be huge. If it cannot be locked, its location is judged by name.
TEST(TrustedProgramTest, ReadsNothingOfAFileThatALinkReachesElsewhere) {
  const Tests::TempFolder elsewhere;
  std::filesystem::copy_file(Tests::PkiFile(kPinned), elsewhere / kPinned);
  const Tests::ProtectedFolder folder;
  const Tests::DirectoryLink link(folder / L"link", elsewhere.Path().wstring());
  for (const bool locked : {true, false}) {
    SCOPED_TRACE(locked ? "locked" : "open in another process");
    const auto writer = locked ? Platform::Files::Opened(Platform::Failure(0))
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
  // Makes the most calls: "%" is expanded, and both this spelling and the true one are judged.
  const std::wstring text = folder / L"%x%\\PINNED.EXE";
  Simulator::FaultInjection faults;
  const Platform::MachineScope scope([&](Platform::Machine& machine) { faults.Install(machine); });
  std::map<std::string, int> spare;  // failures that did not prevent trust
  std::vector<std::string> calls;
  for (std::size_t call = 0; call <= calls.size(); ++call) {
    faults.FailCall(call);
    const bool trusted = !Checked(text).empty();
    calls = faults.Calls();
    if (trusted) ++spare[call < calls.size() ? calls[call] : "none"];
  }
  // Not all calls are needed: eight texts are compared with two prefixes that name other
  // folders, the text is already a full path, the lock is retried, and the signature is in the
  // file.
  EXPECT_THAT(spare, ElementsAre(Pair("Environment.Expand", 16), Pair("Files.FullPath", 3),
                                 Pair("Files.OpenReadLocked", 1),
                                 Pair("TrustProvider.FindCatalog", 1), Pair("none", 1)));
}

// The library is loaded when the first program is judged.
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
      // This library is in the program's folder, where a search by name would find it.
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

// Opening a pipe would connect to it as SYSTEM, and a read could block forever.
TEST(TrustedProgramTest, OpensNothingWhoseTextIsNoFileInAnAllowedPlace) {
  const std::wstring pipe = LR"(\\.\pipe\VxTest-)" + std::to_wstring(GetCurrentProcessId());
  const Platform::UniqueHandle server = Platform::AdoptFile(CreateNamedPipeW(
      pipe.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE | PIPE_NOWAIT, 1, 64, 64, 0, nullptr));
  ASSERT_NE(server, nullptr);
  const std::wstring notOnADrive = L"is not a full path on a drive";
  const std::wstring outside;  // empty: the path rule logs the reason
  const std::pair<std::wstring, std::wstring> cases[] = {
      {pipe, notOnADrive},
      {LR"(\\localhost)" + pipe.substr(3), notOnADrive},
      {LR"(\\?)" + pipe.substr(3), notOnADrive},
      {LR"(\\.\PhysicalDrive0)", notOnADrive},
      {LR"(\\.\C:)", notOnADrive},
      {L"explorer.exe", notOnADrive},
      {LR"(%windir%\explorer.exe)", notOnADrive},
      {LR"(C:\windows\%OS%\x.exe)", L"contains a variable"},
      {std::wstring(L"C:\\windows\\explorer.exe\0.txt", 28), L"contains a control character"},
      {LR"(Q:\WindowsApps\App\x.exe)", L"is on no drive of this machine"},
      {LR"(C:\users\x.exe)", outside},
      {LR"(C:\windows\..\users\x.exe)", outside},
      {LR"(C:\windows\COM1)", outside},
      {LR"(C:\windows\explorer.exe:stream)", outside},
  };
  for (const auto& [path, reason] : cases) {
    SCOPED_TRACE(testing::PrintToString(path));
    const Tests::LogCapture log;
    EXPECT_EQ(Checked(path), L"");
    if (!reason.empty()) {
      EXPECT_THAT(log.Lines(), ElementsAre(AllOf(StartsWith(L"warning|TrustedProgram - ["),
                                                 EndsWith(L"because it " + reason))));
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
