#include "servicehost/host_loop.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <objbase.h>
#include <powrprof.h>

#include "hosting/text.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "platform/unique_handle.h"
#include "servicehost/log_lines.h"
#include "servicehost/service_process.h"
#include "storage/cap_data_store.h"
#include "storage/system_mutex.h"
#include "support/import_override.h"
#include "support/probe.h"
#include "support/temp_folder.h"

// The imports that every call of this program goes through.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" decltype(&CoInitializeSecurity) __imp_CoInitializeSecurity;
extern "C" decltype(&GetPwrCapabilities) __imp_GetPwrCapabilities;
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace Vx::Hosting::ServiceHost {
namespace {

using ::testing::HasSubstr;

TEST(PowerFilterTest, DropsWhatTheOtherSourceReportedWithinTwoSeconds) {
  constexpr auto kControl = PowerSource::ServiceControl;
  constexpr auto kNotice = PowerSource::Notification;
  PowerFilter filter;
  const struct {
    const char* name;
    std::uint32_t code;
    PowerSource source;
    std::uint64_t time;
    bool passes;
  } kSteps[] = {
      {"the first report", 18, kControl, 1000, true},
      {"the same from the other source", 18, kNotice, 3000, false},
      {"7 after 18", 7, kNotice, 3000, true},
      {"its pair", 7, kControl, 3001, false},
      {"a second resume, from one source only", 7, kControl, 3500, true},
      {"a third one from that source", 7, kControl, 3600, true},
      {"the other source two seconds late", 7, kNotice, 5601, true},
  };
  for (const auto& step : kSteps) {
    EXPECT_EQ(filter.Passes(step.code, step.source, step.time), step.passes) << step.name;
  }
}

// https://learn.microsoft.com/windows/win32/api/winnt/ns-winnt-system_power_capabilities
BOOLEAN isKnown = FALSE;
BYTE alwaysConnected = 0;
BOOLEAN WINAPI Capabilities(SYSTEM_POWER_CAPABILITIES* all) {
  reinterpret_cast<BYTE*>(all)[20] = alwaysConnected;  // AoAc, after twenty members of a byte
  return isKnown;
}

TEST(HasModernStandbyTest, IsTheCapabilityAoAc) {
  const Tests::ImportOverride watch(__imp_GetPwrCapabilities, &Capabilities);
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

// Whether this thread itself has entered the multithreaded apartment.
bool HasEnteredCom() {
  APTTYPE type{};
  APTTYPEQUALIFIER how{};
  return CoGetApartmentType(&type, &how) == S_OK && type == APTTYPE_MTA &&
         how == APTTYPEQUALIFIER_NONE;
}

// Takes the place of CoInitializeSecurity for its life, in which it is called once. The emulator
// accepts every call and ignores it, so that only the call itself can be looked at.
class SecurityWatch {
 public:
  explicit SecurityWatch(HRESULT answer) {
    calls = 0;
    result = answer;
  }
  SecurityWatch(const SecurityWatch&) = delete;
  SecurityWatch& operator=(const SecurityWatch&) = delete;
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

// The module as it ships, with a store of its own.
class HostLoopTest : public ::testing::Test {
 protected:
  // A thread of the module keeps it loaded until it has ended. No host may keep it for longer.
  ~HostLoopTest() override { ExpectUnload(); }

  static void ExpectUnload() {
    for (int i = 0; i < 500 && ModuleIsLoaded(); ++i) Sleep(10);
    EXPECT_FALSE(ModuleIsLoaded());
  }

  HostLoop::Options Options(bool modernStandby) const {
    return {Tests::ModulePath(), modernStandby};
  }

  bool StandbyIsSet() const { return WaitForSingleObject(standby.get(), 0) == WAIT_OBJECT_0; }

  // Waits until a line is logged.
  bool Logs(const std::wstring& line) {
    const auto logged = [&] { return lines.Text().find(line) != std::wstring::npos; };
    for (int i = 0; i < 500 && !logged(); ++i) Sleep(10);
    return logged();
  }

  // Everything logged. The log ends with it.
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

TEST_F(HostLoopTest, RunsCommandsAndForwardsEachPowerEventOnce) {
  {
    HostLoop host(Options(false), *log);
    EXPECT_EQ(host.Execute({22, L"{}"}, L"client").code, 0U);
    EXPECT_EQ(host.Execute({22, L"{broken"}, L"client").code, 0x20000003U);
    host.OnPower(7, PowerSource::ServiceControl);
    host.OnPower(7, PowerSource::Notification);
    host.OnSession(6);
  }
  EXPECT_THAT(Logged(), HasSubstr(L" client: ")) << "a line of the module about its client";
  EXPECT_THAT(Logged(), HasSubstr(L"INFO : power event 7\n"));
  EXPECT_THAT(Logged(),
              HasSubstr(L"dropped, the other source has just reported it: power event 7"));
  EXPECT_THAT(Logged(), HasSubstr(L"INFO : session change 6\n"));
  EXPECT_THAT(Logged(), HasSubstr(L"the module is stopped"));
}

// Without it, an app would see this process instead of the user as whom the module sends a message:
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

TEST_F(HostLoopTest, SetsTheStandbyEventOnModernStandbyAloneAndNeverLeavesItSet) {
  constexpr auto kControl = PowerSource::ServiceControl;
  SetEvent(standby.get());
  {
    HostLoop host(Options(true), *log);
    EXPECT_FALSE(StandbyIsSet()) << "what a host that ended left behind";
    for (const std::uint32_t resume : {7U, 18U}) {
      host.OnPower(PBT_APMSUSPEND, kControl);
      EXPECT_TRUE(StandbyIsSet());
      host.OnPower(resume, kControl);
      EXPECT_FALSE(StandbyIsSet()) << resume;
    }
    host.OnPower(PBT_APMSUSPEND, kControl);
  }
  EXPECT_FALSE(StandbyIsSet());
  HostLoop other(Options(false), *log);
  other.OnPower(PBT_APMSUSPEND, kControl);
  EXPECT_FALSE(StandbyIsSet());
}

// The module hangs in a code while others come. What came once stays, the leaving of standby too.
TEST_F(HostLoopTest, AFullQueueKeepsTheLastReportOfEachCodeAndWarnsOnce) {
  constexpr auto kControl = PowerSource::ServiceControl;
  HostLoop host(Options(true), *log);
  {
    CodeQueue codes(host, *log, 4);
    codes.AddPower(4, kControl);
    EXPECT_TRUE(StandbyIsSet());
    Tessel::Server::Storage::SystemMutex inUse(Tessel::Server::Storage::CapDataStore::kMutexName);
    inUse.lock();
    codes.AddPower(10, kControl);
    EXPECT_TRUE(Logs(L"power event 10\n"));
    codes.AddPower(18, kControl);
    for (const std::uint32_t code : {8U, 8U, 7U, 8U, 6U}) codes.AddSession(code);
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

// Slot 8 reports a store that cannot be opened. With one it would keep the module for an hour.
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

TEST_F(HostLoopTest, DropsTheSecondReportHoweverLongTheModuleTakesForTheFirst) {
  HostLoop host(Options(false), *log);
  {
    CodeQueue codes(host, *log);
    Tessel::Server::Storage::SystemMutex inUse(Tessel::Server::Storage::CapDataStore::kMutexName);
    inUse.lock();
    codes.AddPower(10, PowerSource::ServiceControl);
    codes.AddPower(10, PowerSource::Notification);
    Sleep(2100);
    inUse.unlock();
  }
  EXPECT_TRUE(Logs(L"the other source has just reported it: power event 10\n"));
}

// Any user may be first to create what a monitor of debug output creates.
TEST_F(HostLoopTest, LogsTheModulesLinesWhoeverHasTheNamesOfDebugOutput) {
  const Platform::UniqueHandle buffer(CreateEventW(nullptr, TRUE, FALSE, L"DBWIN_BUFFER"));
  const Platform::UniqueHandle ready(CreateSemaphoreW(nullptr, 0, 1, L"DBWIN_DATA_READY"));
  ASSERT_TRUE(buffer != nullptr && ready != nullptr);
  HostLoop(Options(false), *log).Execute({99, L"{}"}, L"client");
  EXPECT_THAT(Logged(), HasSubstr(L"Unsupported Function call 99"));
}

// As a build with the maker's logging library: another name takes the place of the export's.
TEST_F(HostLoopTest, ServesAModuleWithoutASinkWithOneWarning) {
  const Tests::TempFolder folder;
  const auto path = folder.Path() / L"OrvaneService.dll";
  std::ifstream in(std::filesystem::path(Tests::ModulePath()), std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  const std::size_t name = bytes.find("VxSetLogSink");
  ASSERT_NE(name, std::string::npos);
  bytes[name + 11] = 'z';  // the names stay sorted
  std::ofstream(path, std::ios::binary) << bytes;
  EXPECT_EQ(HostLoop({path.wstring(), false}, *log).Execute({99, L"{}"}, L"client").code,
            0x20000001U);
  ExpectUnload();
  EXPECT_EQ(Logged(),
            L"WARNING : the module logs through a library without VxSetLogSink, so its lines are "
            L"not in this log\n"
            L"INFO : the module is started: " +
                path.wstring() + L"\nINFO : the module is stopped\n");
}

TEST_F(HostLoopTest, AFileThatIsNotAModuleIsReported) {
  EXPECT_THROW(HostLoop({OwnPath(), false}, *log), std::runtime_error);
}

}  // namespace
}  // namespace Vx::Hosting::ServiceHost
