#include "servicehost/service_process.h"

#include "support/test.h"

#include <aclapi.h>
#include <sddl.h>

#include "hosting/text.h"
#include "platform/thread.h"
#include "servicehost/guarded_folder.h"
#include "servicehost/log_lines.h"
#include "simulator/simulated_files.h"
#include "vxhost/service/service_manager.h"

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names
extern "C" decltype(&ChangeServiceConfig2W) __imp_ChangeServiceConfig2W;
extern "C" decltype(&ChangeServiceConfigW) __imp_ChangeServiceConfigW;
extern "C" decltype(&ControlService) __imp_ControlService;
extern "C" decltype(&DeleteService) __imp_DeleteService;
extern "C" decltype(&GetSecurityInfo) __imp_GetSecurityInfo;
extern "C" decltype(&OpenSCManagerW) __imp_OpenSCManagerW;
extern "C" decltype(&OpenServiceW) __imp_OpenServiceW;
extern "C" decltype(&QueryServiceConfigW) __imp_QueryServiceConfigW;
extern "C" decltype(&QueryServiceStatusEx) __imp_QueryServiceStatusEx;
extern "C" decltype(&RegSetKeyValueW) __imp_RegSetKeyValueW;
extern "C" decltype(&SetServiceObjectSecurity) __imp_SetServiceObjectSecurity;
extern "C" decltype(&StartServiceW) __imp_StartServiceW;
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace Vx::Hosting::ServiceHost {
namespace {

constexpr std::uint32_t kWriting = FILE_WRITE_DATA | WRITE_DAC;

TEST(GuardedFolderTest, AnyAccountBesidesTheSystemsThatMayWriteIsFound) {
  static constexpr wchar_t kUser[] = L"S-1-5-21-1-2-3-1001";
  static constexpr wchar_t kSystem[] = L"S-1-5-18";
  static constexpr wchar_t kUsers[] = L"S-1-5-32-545";
  static constexpr struct {
    const char* name;
    const wchar_t* owner;
    bool allowed;
    std::uint32_t mask;
    const wchar_t* sid;
    const wchar_t* writer;
  } kCases[] = {
      {"the administrators", kSystem, true, FILE_ALL_ACCESS, L"S-1-5-32-544", L""},
      {"users who read", kSystem, true, FILE_GENERIC_READ, kUsers, L""},
      {"users who write", kSystem, true, FILE_WRITE_DATA, kUsers, kUsers},
      {"users who may let themselves", kSystem, true, WRITE_DAC, kUser, kUser},
      {"a denial", kSystem, false, FILE_WRITE_DATA, L"S-1-1-0", L""},
      {"a user who owns it", kUser, true, FILE_ALL_ACCESS, kSystem, kUser},
      {"a group of some later Windows", kSystem, true, FILE_WRITE_DATA, L"S-1-99", L"S-1-99"},
  };
  for (const auto& c : kCases) {
    const Platform::AccessList access{c.owner, {{c.allowed, c.mask, c.sid}}};
    const auto writers = OtherWriters(access, kWriting, Writers::System);
    EXPECT_EQ(writers.empty() ? L"" : writers.front(), c.writer) << c.name;
  }
}

// Replaces GetSecurityInfo. The next call first runs `beforeFirst`, and returns `firstOwner` and
// `firstList` instead if they are set.
std::function<void()> beforeFirst;
PSID firstOwner = nullptr;
PACL firstList = nullptr;
const auto readSecurity = __imp_GetSecurityInfo;
DWORD WINAPI ReadSecurity(HANDLE file, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID* owner,
                          PSID* group, PACL* list, PACL* audit, PSECURITY_DESCRIPTOR* all) {
  if (const auto act = std::exchange(beforeFirst, nullptr)) act();
  const DWORD error = readSecurity(file, type, what, owner, group, list, audit, all);
  if (PSID other = std::exchange(firstOwner, nullptr)) *owner = other;
  if (PACL other = std::exchange(firstList, nullptr)) *list = other;
  return error;
}

class DataFoldersTest : public ::testing::Test {
 protected:
  DataFoldersTest() { std::filesystem::create_directory(data); }

  Tests::TempFolder parent;
  const std::filesystem::path data = parent.Path() / L"Vx";
  const Tests::ImportOverride<decltype(&GetSecurityInfo)> security{__imp_GetSecurityInfo,
                                                                   &ReadSecurity};
};

TEST_F(DataFoldersTest, AFolderCannotBeReplacedWhileItIsJudged) {
  DWORD error = 0;
  beforeFirst = [&] {
    error =
        MoveFileW(data.c_str(), (parent.Path() / L"away").c_str()) != FALSE ? 0 : GetLastError();
  };
  PrepareFolders(parent.Path().wstring(), Writers::Account, Existing::Report);
  EXPECT_EQ(error, DWORD{ERROR_SHARING_VIOLATION});
}

// An account that could change the folder's access list may still have a handle with that right.
TEST_F(DataFoldersTest, AFolderWhoseListAnotherAccountCouldChangeIsRenamedAndMadeAgain) {
  SID everyone{SID_REVISION, 1, SECURITY_WORLD_SID_AUTHORITY, {SECURITY_WORLD_RID}};
  const struct {
    PSID owner;
    DWORD rights;
    bool replaced;
  } kCases[] = {{&everyone, 0, true},
                {nullptr, FILE_ALL_ACCESS, true},
                {nullptr, WRITE_OWNER, true},
                {nullptr, FILE_WRITE_DATA | DELETE, false}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.rights);
    alignas(ACL) std::byte list[128];
    const auto present = [&] {
      firstOwner = c.owner;
      if (c.owner != nullptr) return;
      firstList = reinterpret_cast<PACL>(list);
      InitializeAcl(firstList, sizeof list, ACL_REVISION);
      AddAccessAllowedAce(firstList, ACL_REVISION, c.rights, &everyone);
    };
    const std::filesystem::path place = parent.Path() / std::to_wstring(c.rights);
    std::filesystem::create_directories(place / L"Vx");
    std::ofstream(place / L"Vx" / L"kept") << "x";
    present();
    EXPECT_THROW(PrepareFolders(place.wstring(), Writers::Account, Existing::Report),
                 std::runtime_error);
    present();
    const auto repaired = PrepareFolders(place.wstring(), Writers::Account, Existing::Repair);
    ASSERT_EQ(repaired.size(), 1U);
    EXPECT_EQ(repaired.front().find("Vx.replaced-") != std::string::npos, c.replaced);
    EXPECT_NE(exists(place / L"Vx" / L"kept"), c.replaced);
    EXPECT_TRUE(exists(place / L"Vx" / L"SharedServices"));
    const std::filesystem::directory_iterator entries(place);
    EXPECT_EQ(std::ranges::count_if(
                  entries, [](const auto& entry) { return exists(entry.path() / L"kept"); }),
              1);
  }
}

TEST(WhyUnguardedTest, OthersMayNotWriteTheFileOrItsFolderNorReplaceAFolderAboveIt) {
  class Disk final : public Simulator::SimulatedFiles {
   public:
    Platform::Result<Platform::AccessList> FolderAccess(const std::wstring& path) const override {
      return Platform::AccessList{L"S-1-5-18", {{true, path == open ? mask : 0, L"S-1-1-0"}}};
    }
    std::wstring open;
    std::uint32_t mask = 0;
  } disk;
  const Platform::MachineScope scope([&](Platform::Machine& machine) { machine.files = &disk; });
  static constexpr wchar_t kFile[] = L"C:\\a\\b\\c.dll";
  static constexpr struct {
    const wchar_t* path;
    std::uint32_t harmless;
    std::array<std::uint32_t, 3> harmful;
  } kCases[] = {
      {kFile, FILE_GENERIC_READ, {FILE_WRITE_DATA, FILE_APPEND_DATA, DELETE}},
      {L"C:\\a\\b", FILE_GENERIC_READ, {FILE_ADD_FILE, FILE_DELETE_CHILD, DELETE}},
      {L"C:\\a", FILE_ADD_FILE | FILE_ADD_SUBDIRECTORY, {FILE_DELETE_CHILD, DELETE, WRITE_DAC}},
      {L"C:\\", FILE_ADD_SUBDIRECTORY | DELETE, {FILE_DELETE_CHILD, WRITE_DAC, WRITE_OWNER}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(Utf8(c.path));
    disk.open = c.path;
    disk.mask = c.harmless;
    EXPECT_EQ(WhyUnguarded(kFile, Writers::System), "");
    for (const std::uint32_t mask : c.harmful) {
      disk.mask = mask;
      EXPECT_EQ(WhyUnguarded(kFile, Writers::System), Utf8(c.path) + " can be written by S-1-1-0")
          << mask;
    }
  }
}

TEST(ServicePlanTest, ItsCommandLineIsQuotedAndItsNameCannotBreakOut) {
  EXPECT_EQ(Tool::ImagePath({.name = L"A", .program = L"C:\\a b\\x.exe", .module = L"C:\\m.dll"}),
            L"\"C:\\a b\\x.exe\" A");
  for (const wchar_t* name : {L"", L"a b", L"a\"", L"a\\b", L"a/b", L"\xE9"}) {
    EXPECT_FALSE(IsServiceName(name)) << Utf8(name);
  }
  EXPECT_FALSE(IsServiceName(std::wstring(65, L'a')));
  EXPECT_TRUE(IsServiceName(std::wstring(64, L'a')));
}

// Replace Windows functions, so that one setting of a service or its event source fails.
DWORD refusedLevel = 0;
BOOL restartsAfterErrors = FALSE;
BOOL WINAPI Change(SC_HANDLE /*service*/, DWORD level, void* info) {
  if (level == SERVICE_CONFIG_FAILURE_ACTIONS_FLAG) {
    restartsAfterErrors =
        static_cast<SERVICE_FAILURE_ACTIONS_FLAG*>(info)->fFailureActionsOnNonCrashFailures;
  }
  SetLastError(ERROR_ACCESS_DENIED);
  return level != refusedLevel;
}
LSTATUS WINAPI RefuseValue(HKEY /*key*/, const wchar_t* /*path*/, const wchar_t* /*name*/,
                           DWORD /*type*/, const void* /*value*/, DWORD /*size*/) {
  return ERROR_ACCESS_DENIED;
}

TEST(ServiceManagerTest, ARefusedSettingLeavesNoServiceExceptOneThatWasThere) {
  const Tests::ImportOverride settings(__imp_ChangeServiceConfig2W, &Change);
  Tool::ServiceManager manager;
  Tool::ServicePlan plan{.name = L"VxHalf" + std::to_wstring(GetCurrentProcessId()),
                         .program = OwnPath(),
                         .module = Tests::ModulePath(),
                         .start = Tool::ServicePlan::Start::Automatic};
  const auto expectRefusal = [&] {
    EXPECT_THROW(manager.Install(plan), std::runtime_error) << refusedLevel;
    EXPECT_EQ(manager.Query(plan.name).has_value(), plan.replaces) << refusedLevel;
  };
  for (const bool replaces : {false, true}) {
    plan.replaces = replaces;
    for (refusedLevel = SERVICE_CONFIG_DESCRIPTION; refusedLevel <= SERVICE_CONFIG_PRESHUTDOWN_INFO;
         ++refusedLevel) {
      expectRefusal();
    }
    {
      const Tests::ImportOverride source(__imp_RegSetKeyValueW, &RefuseValue);
      expectRefusal();
    }
    manager.Install(plan);
    EXPECT_TRUE(restartsAfterErrors);
  }
  manager.Remove(plan.name);
}

// Stands in for any Windows function that returns zero on failure.
template <typename Returned, typename... Parameters>
Returned WINAPI Refuse(Parameters... /*unused*/) {
  SetLastError(ERROR_ACCESS_DENIED);
  return {};
}

TEST(ServiceManagerTest, ARefusedCallIsReportedWithTheServiceAndItsError) {
  Tool::ServiceManager manager;
  Tool::ServicePlan plan{.name = L"VxRefused" + std::to_wstring(GetCurrentProcessId()),
                         .program = OwnPath(),
                         .module = L"C:\\m.dll",
                         .start = Tool::ServicePlan::Start::Demand};
  manager.Install(plan);
  plan.replaces = true;
  const auto refused = [&](const std::string& what, auto& import, auto&& call) {
    const Tests::ImportOverride<std::remove_reference_t<decltype(import)>> refusal(import, &Refuse);
    EXPECT_THAT(call, ThrowsMessage<std::runtime_error>(AllOf(HasSubstr(what), HasSubstr("error 5"),
                                                              HasSubstr("as administrator"))));
  };
  const std::string name = " the service " + Utf8(plan.name);
  const auto query = [&] { manager.Query(plan.name); };
  const auto install = [&] { manager.Install(plan); };
  refused("cannot reach the service manager", __imp_OpenSCManagerW, query);
  refused("cannot query" + name, __imp_OpenServiceW, query);
  refused("cannot query" + name, __imp_QueryServiceStatusEx, query);
  refused("cannot query" + name, __imp_QueryServiceConfigW, query);
  refused("cannot replace" + name, __imp_SetServiceObjectSecurity, install);
  refused("cannot replace" + name, __imp_ChangeServiceConfigW, install);
  refused("cannot start" + name, __imp_StartServiceW, [&] { manager.Start(plan.name); });
  refused("cannot stop" + name, __imp_ControlService, [&] { manager.Stop(plan.name); });
  refused("cannot send a code to" + name, __imp_ControlService,
          [&] { manager.Send(plan.name, 128); });
  refused("cannot remove" + name, __imp_DeleteService, [&] { manager.Remove(plan.name); });
  manager.Remove(plan.name);
}

std::wstring newAccess;
BOOL WINAPI SetAccess(SC_HANDLE, SECURITY_INFORMATION what, PSECURITY_DESCRIPTOR access) {
  wchar_t* text = nullptr;
  ConvertSecurityDescriptorToStringSecurityDescriptorW(access, SDDL_REVISION_1, what, &text,
                                                       nullptr);
  newAccess = Platform::UniqueLocalMemory<wchar_t>(text).get();
  return TRUE;
}

// A service as installed by an earlier version, with its options on the command line.
TEST(ServiceManagerTest, ReplacingMovesTheOptionsFromTheCommandLineToTheParameters) {
  const std::wstring name = L"VxOlder" + std::to_wstring(GetCurrentProcessId());
  const Tool::UniqueServiceHandle windows(
      OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
  Tool::UniqueServiceHandle older(CreateServiceW(
      static_cast<SC_HANDLE>(windows.get()), name.c_str(), nullptr, SERVICE_ALL_ACCESS,
      SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
      L"\"C:\\x\\vxhost.exe\" service entry --name x --module \"C:\\x y\\m.dll\" --allow "
      L"S-1-5-32-545 "
      L"--allow S-1-5-4 --development",
      nullptr, nullptr, nullptr, nullptr, nullptr));
  ASSERT_NE(older, nullptr);
  Tool::ServiceManager manager;
  const ServiceOptions before = manager.Query(name)->options;
  EXPECT_EQ(before.module, L"");
  const Tool::ServicePlan plan{.name = name,
                               .program = L"C:\\a b\\OrvaneHost.exe",
                               .module = L"C:\\a b\\m.dll",
                               .allowed = before.allowed,
                               .development = before.development,
                               .replaces = true};
  const auto runAs = [&](const wchar_t* account) {
    EXPECT_TRUE(ChangeServiceConfigW(static_cast<SC_HANDLE>(older.get()), SERVICE_NO_CHANGE,
                                     SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, nullptr, nullptr,
                                     nullptr, nullptr, account, L"", nullptr));
  };
  runAs(L"NT AUTHORITY\\LocalService");
  EXPECT_THAT([&] { manager.Install(plan); },
              ThrowsMessage<std::runtime_error>(EndsWith(
                  "runs as NT AUTHORITY\\LocalService and not as LocalSystem; remove it first")));
  EXPECT_EQ(manager.Query(name)->options.module, L"");
  runAs(L"LocalSystem");
  older.reset();
  const Tests::ImportOverride access(__imp_SetServiceObjectSecurity, &SetAccess);
  manager.Install(plan);
  // The default access list of a new service, as documented by Windows.
  EXPECT_EQ(newAccess,
            L"O:BAD:(A;;CCLCSWRPWPDTLOCRRC;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)"
            L"(A;;CCLCSWLOCRRC;;;IU)(A;;CCLCSWLOCRRC;;;SU)");
  const auto report = manager.Query(name);
  EXPECT_EQ(report->image, L"\"C:\\a b\\OrvaneHost.exe\" " + name);
  EXPECT_FALSE(report->automatic);
  EXPECT_EQ(report->options.module, L"C:\\a b\\m.dll");
  EXPECT_THAT(report->options.allowed, ElementsAre(L"S-1-5-32-545", L"S-1-5-4"));
  EXPECT_TRUE(report->options.development);

  const std::wstring key = L"SYSTEM\\CurrentControlSet\\Services\\" + name + L"\\Parameters";
  const DWORD other = 2;
  for (const wchar_t* value : {L"Module", L"Allow", L"Development"}) {
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, REG_DWORD, &other, sizeof other);
  }
  const ServiceOptions damaged = ReadParameters(name);
  EXPECT_EQ(damaged.module, L"");
  EXPECT_TRUE(damaged.allowed.empty());
  EXPECT_FALSE(damaged.development);
  manager.Remove(name);
}

// A client can make the module start this program as SYSTEM, with any arguments.
TEST(OrvaneHostTest, DoesNothingUnlessTheServiceManagerStartedItForAName) {
  const std::pair<const wchar_t*, DWORD> kCases[] = {
      {L" OrvaneService", ERROR_FAILED_SERVICE_CONTROLLER_CONNECT}, {L"", ERROR_BAD_ARGUMENTS},
      {L" OrvaneService --module C:\\x.dll", ERROR_BAD_ARGUMENTS},  {L" a\\b", ERROR_INVALID_NAME},
      {L" --help", ERROR_FAILED_SERVICE_CONTROLLER_CONNECT},
  };
  // All at once, because the first case waits for a service manager that does not answer.
  const std::wstring program = L"\"" + Tests::BuiltFile(L"..\\bin\\OrvaneHost.exe") + L"\"";
  std::vector<Tests::StartedProcess> hosts;
  for (const auto& [arguments, expected] : kCases) {
    hosts.push_back(Tests::StartProcess(program + arguments));
  }
  for (std::size_t i = 0; i < hosts.size(); ++i) {
    EXPECT_EQ(WaitForSingleObject(hosts[i].process.get(), 20'000), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeProcess(hosts[i].process.get(), &code);
    EXPECT_EQ(code, kCases[i].second) << Utf8(kCases[i].first);
  }
}

// The service as the service manager runs it, with the shipped module and its own store.
class ServiceProcessTest : public ::testing::Test {
 protected:
  void Take(const SERVICE_STATUS& state) {
    states.push_back(state);
    if (state.dwCurrentState == SERVICE_RUNNING) SetEvent(running.get());
    if (state.dwCurrentState == SERVICE_STOPPED) SetEvent(stopped.get());
  }

  ServiceProcess& Service(const std::wstring& module, bool development) {
    const std::wstring name = L"process-" + std::to_wstring(GetCurrentProcessId());
    service = std::make_unique<ServiceProcess>(
        ServiceOptions{name, module, {}, development}, lines.Targets(),
        [this](const SERVICE_STATUS& state) { Take(state); });
    return *service;
  }

  // Runs the service, sends `controls` and then `last`, which stops it. Returns the handler's
  // results for `controls`.
  std::vector<std::uint32_t> RunWith(
      const std::vector<std::pair<std::uint32_t, std::uint32_t>>& controls, bool development,
      std::uint32_t last) {
    ServiceProcess& one = Service(Tests::ModulePath(), development);
    Platform::Thread main([&one] { one.Run(); });
    EXPECT_EQ(WaitForSingleObject(running.get(), 10'000), WAIT_OBJECT_0);
    std::vector<std::uint32_t> results;
    results.reserve(controls.size());
    for (const auto& [control, event] : controls) results.push_back(one.Control(control, event));
    one.Control(last, 0);
    EXPECT_EQ(WaitForSingleObject(stopped.get(), 10'000), WAIT_OBJECT_0);
    one.Control(SERVICE_CONTROL_STOP, 0);  // otherwise the join would block forever
    main.Join();
    service.reset();
    return results;
  }

  Tests::PrivateStore store;
  Platform::UniqueHandle running{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  Platform::UniqueHandle stopped{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::vector<SERVICE_STATUS> states;
  LogLines lines;
  std::unique_ptr<ServiceProcess> service;
};

TEST_F(ServiceProcessTest, ForwardsTheManagersCodesInOrderAndReportsEachState) {
  EXPECT_THAT(RunWith({{SERVICE_CONTROL_POWEREVENT, 4},
                       {SERVICE_CONTROL_SESSIONCHANGE, 5},
                       {SERVICE_CONTROL_POWEREVENT, 18},
                       {SERVICE_CONTROL_INTERROGATE, 0},
                       {kPowerControl + 7, 0},
                       {SERVICE_CONTROL_PARAMCHANGE, 0}},
                      false, SERVICE_CONTROL_PRESHUTDOWN),
              ElementsAre(NO_ERROR, NO_ERROR, NO_ERROR, NO_ERROR, ERROR_CALL_NOT_IMPLEMENTED,
                          ERROR_CALL_NOT_IMPLEMENTED));
  const std::wstring text = lines.Text();
  const auto at = [&](const wchar_t* line) { return text.find(line); };
  EXPECT_LT(at(L": power event 4\n"), at(L": session change 5\n"));
  EXPECT_LT(at(L": session change 5\n"), at(L": power event 18\n"));
  EXPECT_LT(at(L": power event 18\n"), at(L": the module is stopped\n"));
  EXPECT_THAT(text, Not(HasSubstr(L"power event 7")));
  std::vector<std::uint32_t> seen;
  std::uint32_t checkpoint = 0;
  for (const SERVICE_STATUS& state : states) {
    if (seen.empty() || seen.back() != state.dwCurrentState) {
      seen.push_back(state.dwCurrentState);
      checkpoint = 0;
    }
    const bool runs = state.dwCurrentState == SERVICE_RUNNING;
    const bool lasts = runs || state.dwCurrentState == SERVICE_STOPPED;
    EXPECT_EQ(state.dwCheckPoint, lasts ? 0 : ++checkpoint);
    EXPECT_EQ(state.dwWin32ExitCode, 0U);
    // Windows sends only what a service accepts: stop, power event, session change, pre-shutdown.
    EXPECT_EQ(state.dwControlsAccepted, runs ? 0x1U | 0x40U | 0x80U | 0x100U : 0U);
  }
  EXPECT_THAT(seen, ElementsAre(SERVICE_START_PENDING, SERVICE_RUNNING, SERVICE_STOP_PENDING,
                                SERVICE_STOPPED));
}

TEST_F(ServiceProcessTest, TakesEventsOfUsersOnlyUnderDevelopment) {
  EXPECT_THAT(
      RunWith({{kPowerControl + 7, 0}, {kSessionControl + 63, 0}, {127, 0}, {256, 0}}, true,
              SERVICE_CONTROL_STOP),
      ElementsAre(NO_ERROR, NO_ERROR, ERROR_CALL_NOT_IMPLEMENTED, ERROR_CALL_NOT_IMPLEMENTED));
  EXPECT_THAT(lines.Text(), HasSubstr(L"power event 7\n"));
  EXPECT_THAT(lines.Text(), HasSubstr(L"session change 63\n"));
}

TEST_F(ServiceProcessTest, AModuleThatCannotBeLoadedEndsItWithAnErrorAndALine) {
  const struct {
    const wchar_t* module;
    std::uint32_t code;
    const wchar_t* line;
  } kCases[] = {{L"C:\\windows\\none.dll", ERROR_MOD_NOT_FOUND, L": cannot load C:"},
                {L"", 1, L": no module is named below the key"}};
  for (const auto& [module, code, line] : kCases) {
    ServiceProcess& one = Service(module, false);
    one.Run();
    EXPECT_EQ(states.back().dwCurrentState, static_cast<std::uint32_t>(SERVICE_STOPPED));
    EXPECT_EQ(states.back().dwWin32ExitCode,
              static_cast<std::uint32_t>(ERROR_SERVICE_SPECIFIC_ERROR));
    EXPECT_EQ(states.back().dwServiceSpecificExitCode, code);
    EXPECT_THAT(lines.Text(), HasSubstr(std::wstring(L"the service cannot run") + line));
    EXPECT_EQ(one.Control(SERVICE_CONTROL_POWEREVENT, 7), static_cast<std::uint32_t>(NO_ERROR));
  }
}

}  // namespace
}  // namespace Vx::Hosting::ServiceHost
