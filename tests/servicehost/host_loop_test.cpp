#include "servicehost/host_loop.h"

#include <sstream>

#include "support/test.h"

#include <objbase.h>
#include <powrprof.h>

#include "platform/system_services.h"
#include "servicehost/log_lines.h"
#include "servicehost/service_process.h"
#include "storage/cap_data_store.h"
#include "storage/system_mutex.h"

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" decltype(&CoInitializeSecurity) __imp_CoInitializeSecurity;
extern "C" decltype(&GetProcAddress) __imp_GetProcAddress;
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace Vx::Hosting::ServiceHost {
namespace {

// https://learn.microsoft.com/windows/win32/api/winnt/ns-winnt-system_power_capabilities
BOOLEAN isKnown = FALSE;
BYTE alwaysConnected = 0;
BOOLEAN WINAPI Capabilities(SYSTEM_POWER_CAPABILITIES* all) {
  reinterpret_cast<BYTE*>(all)[20] = alwaysConnected;  // AoAc, after twenty one-byte members
  return isKnown;
}

// A registration for the state of the console's display, which the emulator never reports.
struct Recipient {
  ULONG(CALLBACK* callback)(void* context, ULONG code, void* setting);
  void* context;
};
Recipient* recipient = nullptr;
DWORD refusal = ERROR_SUCCESS;
DWORD WINAPI Register(const GUID* setting, DWORD flags, HANDLE registered, void** handle) {
  wchar_t text[40];
  EXPECT_NE(StringFromGUID2(*setting, text, 40), 0);
  EXPECT_STREQ(text, L"{6FE69556-704A-47A0-8F24-C28D936FDA47}");  // GUID_CONSOLE_DISPLAY_STATE
  EXPECT_EQ(flags, 2U);                                           // DEVICE_NOTIFY_CALLBACK
  if (refusal == ERROR_SUCCESS) *handle = recipient = static_cast<Recipient*>(registered);
  return refusal;
}
DWORD WINAPI Unregister(void* handle) {
  EXPECT_EQ(handle, std::exchange(recipient, nullptr));
  return ERROR_SUCCESS;
}
void ReportDisplay(BYTE state, DWORD size = sizeof(DWORD)) {
  alignas(POWERBROADCAST_SETTING) BYTE setting[sizeof(GUID) + sizeof(DWORD) * 2]{};
  reinterpret_cast<POWERBROADCAST_SETTING*>(setting)->DataLength = size;
  reinterpret_cast<POWERBROADCAST_SETTING*>(setting)->Data[0] = state;
  recipient->callback(recipient->context, PBT_POWERSETTINGCHANGE, setting);
}

// Replaces powrprof.dll's functions, which are looked up at each call.
decltype(&GetProcAddress) realAddress = nullptr;
FARPROC WINAPI Address(HMODULE library, LPCSTR name) {
  const std::string_view sought = name;
  EXPECT_NE(sought, "PowerRegisterSuspendResumeNotification") << "may hang in a service";
  const std::pair<const char*, void*> functions[] = {
      {"GetPwrCapabilities", reinterpret_cast<void*>(&Capabilities)},
      {"PowerSettingRegisterNotification", reinterpret_cast<void*>(&Register)},
      {"PowerSettingUnregisterNotification", reinterpret_cast<void*>(&Unregister)},
  };
  for (const auto& [known, function] : functions) {
    if (sought == known) return reinterpret_cast<FARPROC>(function);
  }
  return realAddress(library, name);
}
class PowerFunctions {
  const decltype(&GetProcAddress) real = realAddress = __imp_GetProcAddress;
  const Tests::ImportOverride<decltype(&GetProcAddress)> find{__imp_GetProcAddress, &Address};
};

TEST(HasModernStandbyTest, IsTheCapabilityAoAc) {
  const PowerFunctions functions;
  for (const BOOLEAN known : {BOOLEAN{FALSE}, BOOLEAN{TRUE}}) {
    for (const BYTE value : {BYTE{0}, BYTE{1}}) {
      isKnown = known;
      alwaysConnected = value;
      EXPECT_EQ(HasModernStandby(), known != FALSE && value != 0);
    }
  }
}

bool ModuleIsLoaded() {
  return GetModuleHandleW(L"OrvaneService.dll") != nullptr;
}

bool HasEnteredCom() {
  APTTYPE type{};
  APTTYPEQUALIFIER how{};
  return CoGetApartmentType(&type, &how) == S_OK && type == APTTYPE_MTA &&
         how == APTTYPEQUALIFIER_NONE;
}

// Replaces CoInitializeSecurity for the life of this object and expects one call. The emulator
// ignores the call, so only its arguments can be checked.
class SecurityWatch {
 public:
  explicit SecurityWatch(HRESULT answer) {
    calls = 0;
    result = answer;
  }
  ~SecurityWatch() { EXPECT_EQ(calls, 1); }

 private:
  static HRESULT WINAPI Answer(void* /*access*/, LONG /*count*/,
                               SOLE_AUTHENTICATION_SERVICE* /*services*/, void* /*reserved*/,
                               DWORD /*authentication*/, DWORD impersonation, void* /*list*/,
                               DWORD capabilities, void* /*reserved*/) {
    ++calls;
    EXPECT_EQ(impersonation, static_cast<DWORD>(RPC_C_IMP_LEVEL_IMPERSONATE));
    EXPECT_EQ(capabilities, static_cast<DWORD>(EOAC_DYNAMIC_CLOAKING));
    EXPECT_TRUE(HasEnteredCom());
    EXPECT_FALSE(ModuleIsLoaded());
    return result;
  }

  static inline int calls = 0;
  static inline HRESULT result = S_OK;
  Tests::ImportOverride<decltype(&CoInitializeSecurity)> import{__imp_CoInitializeSecurity,
                                                                &Answer};
};

class HostLoopTest : public ::testing::Test {
 protected:
  // The module's threads keep it loaded until they end. The host must not keep it loaded longer.
  ~HostLoopTest() override { ExpectUnload(); }

  static void ExpectUnload() {
    EXPECT_TRUE(Tests::Eventually([] { return !ModuleIsLoaded(); }));
  }

  HostLoop::Options Options(bool modernStandby) const {
    return {Tests::ModulePath(), modernStandby};
  }

  bool StandbyIsSet() const { return WaitForSingleObject(standby.get(), 0) == WAIT_OBJECT_0; }

  bool Logs(const std::wstring& line) {
    return Tests::Eventually([&] { return lines.Text().find(line) != std::wstring::npos; });
  }

  std::wstring Logged() {
    log.reset();
    return lines.Text();
  }

  Tests::PrivateStore store;
  Platform::UniqueHandle standby{
      CreateEventW(nullptr, TRUE, FALSE, L"{CE7DC567-F47B-4A07-8489-C9DEB372B88F}")};
  LogLines lines;
  std::unique_ptr<ServiceLog> log = std::make_unique<ServiceLog>(lines.Targets());
};

TEST_F(HostLoopTest, RunsCommandsAndForwardsCodes) {
  {
    HostLoop host(Options(false), *log);
    EXPECT_EQ(host.Execute({22, L"{}"}, L"client").code, 0U);
    EXPECT_EQ(host.Execute({22, L"{broken"}, L"client").code, 0x20000003U);
    host.OnPower(7);
    host.OnSession(6);
  }
  EXPECT_THAT(Logged(), HasSubstr(L" client: ")) << "a line of the module about its client";
  EXPECT_THAT(Logged(), HasSubstr(L"INFO : power event 7\n"));
  EXPECT_THAT(Logged(), HasSubstr(L"INFO : session change 6\n"));
  EXPECT_THAT(Logged(), HasSubstr(L"the module is stopped"));
}

// Without cloaking, apps would be called with this process's identity instead of the user's:
// https://learn.microsoft.com/windows/win32/com/cloaking
TEST_F(HostLoopTest, ChoosesDynamicCloakingBeforeItLoadsTheModuleAndKeepsComEntered) {
  static constexpr wchar_t kLine[] =
      L"ERROR : COM cannot call as the user, so messages may not reach apps: status 0x80010119\n";
  for (const HRESULT answer : {S_OK, RPC_E_TOO_LATE}) {
    const SecurityWatch watch(answer);
    {
      HostLoop host(Options(false), *log);
      EXPECT_TRUE(HasEnteredCom());
      EXPECT_EQ(host.Execute({22, L"{}"}, L"client").code, 0U);
    }
    EXPECT_FALSE(HasEnteredCom());
    ExpectUnload();
    log->Flush();
    EXPECT_EQ(lines.Text().find(kLine) != std::wstring::npos, answer != S_OK);
  }
}

TEST_F(HostLoopTest, TheDisplaySetsTheStandbyEventOnModernStandbyAlone) {
  const PowerFunctions functions;
  SetEvent(standby.get());
  {
    HostLoop host(Options(true), *log);
    EXPECT_FALSE(StandbyIsSet()) << "what a host that ended left behind";
    const struct {
      const char* name;
      std::function<void()> happens;
      bool set;
    } kSteps[] = {
        {"on at first", [] { ReportDisplay(1); }, false},
        {"off", [] { ReportDisplay(0); }, true},
        {"a setting of another size", [] { ReportDisplay(1, 1); }, true},
        {"on", [] { ReportDisplay(1); }, false},
        {"a suspend handled after that", [&] { host.OnPower(PBT_APMSUSPEND); }, false},
        {"off again", [] { ReportDisplay(0); }, true},
        {"a resume in the dark", [&] { host.OnPower(PBT_APMRESUMEAUTOMATIC); }, false},
        {"off a third time", [] { ReportDisplay(0); }, true},
        {"a user's resume before the display", [&] { host.OnPower(PBT_APMRESUMESUSPEND); }, false},
        {"off, and a suspend", [&] { ReportDisplay(0), host.OnPower(PBT_APMSUSPEND); }, true},
    };
    for (const auto& step : kSteps) {
      step.happens();
      EXPECT_EQ(StandbyIsSet(), step.set) << step.name;
    }
  }
  EXPECT_EQ(recipient, nullptr);
  EXPECT_FALSE(StandbyIsSet());
  ExpectUnload();
  {
    const HostLoop other(Options(false), *log);
    EXPECT_EQ(recipient, nullptr);
  }
  ExpectUnload();
  refusal = ERROR_ACCESS_DENIED;
  { const HostLoop refused(Options(true), *log); }
  refusal = ERROR_SUCCESS;
  EXPECT_THAT(Logged(), HasSubstr(L"ERROR : the standby event cannot follow the display, error 5"));
}

// The module hangs in one call. The last of each later code is kept, even 18, which ends standby.
TEST_F(HostLoopTest, AFullQueueKeepsTheLastReportOfEachCodeAndWarnsOnce) {
  constexpr auto power = &HostLoop::OnPower;
  constexpr auto session = &HostLoop::OnSession;
  HostLoop host(Options(true), *log);
  SetEvent(standby.get());
  {
    CodeQueue codes(host, *log, 4);
    codes.Add({power, 4});
    EXPECT_TRUE(StandbyIsSet());
    Tessel::Server::Storage::SystemMutex inUse(Tessel::Server::Storage::CapDataStore::kMutexName);
    inUse.lock();
    codes.Add({power, 10});
    EXPECT_TRUE(Logs(L"power event 10\n"));
    codes.Add({power, 18});
    for (const std::uint32_t code : {8U, 8U, 7U, 8U, 6U}) codes.Add({session, code});
    inUse.unlock();
  }
  EXPECT_FALSE(StandbyIsSet());
  log->Flush();
  std::wstring codes;
  std::wistringstream all(lines.Text());
  for (std::wstring line; std::getline(all, line);) {
    if (line.find(L"power event ") != line.npos || line.find(L"session change ") != line.npos ||
        line.find(L"WARNING") != line.npos) {
      codes += line + L"\n";
    }
  }
  EXPECT_EQ(codes,
            L"INFO : power event 4\nINFO : power event 10\n"
            L"WARNING : 2 codes of Windows were dropped, because the module was busy with an "
            L"earlier one\n"
            L"INFO : power event 18\nINFO : session change 7\nINFO : session change 8\n"
            L"INFO : session change 6\n");
}

class SetupState final : public Platform::Oobe {
 public:
  State Query() const override { return {true, complete}; }

  std::atomic<bool> complete{false};
};

// Slot 8 logs that it cannot open the store. With one, it would keep the module loaded for an hour.
TEST_F(HostLoopTest, CallsSlot8WhenSetupEnds) {
  SetupState setup;
  const Platform::MachineScope scope([&](Platform::Machine& machine) { machine.oobe = &setup; });
  store.Block();
  {
    const HostLoop host(Options(false), *log);
    setup.complete = true;
    EXPECT_TRUE(Logs(L"ERROR : Failed to create CapDataStore"));
  }
  EXPECT_THAT(Logged(), HasSubstr(L"first-run set-up is complete"));
}

// Any user can create a debug monitor's named objects before the monitor does.
TEST_F(HostLoopTest, LogsTheModulesLinesWhoeverHasTheNamesOfDebugOutput) {
  const Platform::UniqueHandle buffer(CreateEventW(nullptr, TRUE, FALSE, L"DBWIN_BUFFER"));
  const Platform::UniqueHandle ready(CreateSemaphoreW(nullptr, 0, 1, L"DBWIN_DATA_READY"));
  ASSERT_TRUE(buffer != nullptr && ready != nullptr);
  HostLoop(Options(false), *log).Execute({99, L"{}"}, L"client");
  EXPECT_THAT(Logged(), HasSubstr(L"Unsupported Function call 99"));
}

// Renames the export, to simulate a build with the maker's logging library, which lacks it.
TEST_F(HostLoopTest, ServesAModuleWithoutASinkWithOneWarning) {
  const Tests::TempFolder folder;
  const auto path = folder.Path() / L"OrvaneService.dll";
  std::string bytes = Tests::ReadText(Tests::ModulePath());
  const std::size_t name = bytes.find("VxSetLogSink");
  ASSERT_NE(name, std::string::npos);
  bytes[name + 11] = 'z';  // the names stay sorted
  Tests::WriteText(path, bytes);
  EXPECT_EQ(HostLoop({path.wstring(), false}, *log).Execute({99, L"{}"}, L"client").code,
            0x20000001U);
  ExpectUnload();
  EXPECT_EQ(Logged(),
            L"WARNING : the module logs through a library without VxSetLogSink, so its lines are "
            L"not in this log\n"
            L"INFO : the module is started: " +
                path.wstring() + L"\nINFO : the module is stopped\n");
}

}  // namespace
}  // namespace Vx::Hosting::ServiceHost
