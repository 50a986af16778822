#include "simulator/simulated_machine.h"

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "platform/impersonation.h"
#include "platform/machine.h"
#include "platform/thread.h"
#include "service/service_fixture.h"

namespace Vx::Simulator {

namespace {

using namespace std::chrono_literals;  // NOLINT(google-build-using-namespace)
using Platform::CurrentMachine;
using Platform::Impersonation;
using Platform::UniqueHandle;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Names = std::vector<std::wstring>;

const SimulatedPackage kAurelo{.familyName = L"7C3B9E40.AureloCenter_r4x2m8kq7tn3b",
                               .fullName = L"7C3B9E40.AureloCenter_3.1.20.0_x64__r4x2m8kq7tn3b",
                               .folder = {}};

class SimulatedMachineTest : public ::testing::Test {
 protected:
  UniqueHandle TokenAtConsole() {
    auto& sessions = *CurrentMachine().sessions;
    auto token = sessions.QueryUserToken(sessions.ActiveConsoleSession());
    return token ? *std::move(token) : nullptr;
  }

  // What the console user has registered of the family.
  Names PackagesAtConsole() {
    const Impersonation asUser(TokenAtConsole().get());
    return CurrentMachine().packages->FindByFamily(kAurelo.familyName).fullNames;
  }

  SimulatedMachine machine;
  Platform::MachineScope scope{[this](Platform::Machine& real) { machine.Install(real); }};
};

TEST_F(SimulatedMachineTest, AThreadSeesThePackagesOfTheUserItActsAs) {
  machine.users.LogOn(L"ann");
  machine.packages.Install(kAurelo, L"ann");
  EXPECT_THAT(CurrentMachine().packages->FindByFamily(kAurelo.familyName).fullNames, IsEmpty());
  EXPECT_THAT(PackagesAtConsole(), ElementsAre(kAurelo.fullName));

  const Impersonation asAnn(TokenAtConsole().get());
  Platform::Thread other([] {
    EXPECT_THAT(CurrentMachine().packages->FindByFamily(kAurelo.familyName).fullNames, IsEmpty());
  });
  other.Join();
  machine.users.LogOn(L"bob");
  EXPECT_THAT(PackagesAtConsole(), IsEmpty());
}

TEST_F(SimulatedMachineTest, ALogonScreenHasASessionButNoUser) {
  const auto first = CurrentMachine().sessions->ActiveConsoleSession();
  EXPECT_EQ(TokenAtConsole(), nullptr);
  machine.users.LogOn(L"ann");
  EXPECT_NE(TokenAtConsole(), nullptr);
  EXPECT_EQ(CurrentMachine().sessions->ActiveConsoleSession(), first);
  machine.users.LogOff();
  EXPECT_EQ(TokenAtConsole(), nullptr);
  EXPECT_NE(CurrentMachine().sessions->ActiveConsoleSession(), first);
  machine.users.DetachConsole();
  EXPECT_EQ(CurrentMachine().sessions->ActiveConsoleSession(), 0xFFFFFFFF);
}

TEST_F(SimulatedMachineTest, UserVariablesAreThoseOfTheToken) {
  machine.users.LogOn(L"ann");
  const UniqueHandle token = TokenAtConsole();
  const auto expand = [&](std::size_t room) {
    return CurrentMachine().environment->ExpandForUser(token.get(), L"%UserProfile%\\x", room);
  };
  const auto expanded = expand(15);
  ASSERT_TRUE(expanded);
  EXPECT_EQ(*expanded, L"C:\\Users\\ann\\x");
  EXPECT_FALSE(expand(14));
}

TEST_F(SimulatedMachineTest, RegistersAStagedPackageForTheActingUserWithinTheLimit) {
  machine.users.LogOn(L"ann");
  machine.packages.Stage(kAurelo);
  auto& packages = *CurrentMachine().packages;
  const UniqueHandle token = TokenAtConsole();
  const Impersonation asAnn(token.get());
  const auto registerIt = [&] { return packages.Register(kAurelo.fullName, 1min).result; };

  machine.packages.SetRegistration({}, 2min);
  EXPECT_EQ(registerIt(), static_cast<std::int32_t>(0x800705B4));
  EXPECT_EQ(machine.clock.Elapsed(), 1min);
  machine.packages.SetRegistration({.result = -1, .errorText = L"no"}, 0s);
  EXPECT_EQ(registerIt(), -1);
  EXPECT_THAT(packages.FindForUser({}, kAurelo.familyName), IsEmpty());

  machine.packages.SetRegistration({}, 5s);
  EXPECT_EQ(registerIt(), 0);
  const auto sid = packages.AccountSid(L"PC\\ann");
  ASSERT_TRUE(sid);
  EXPECT_THAT(packages.FindForUser(*sid, kAurelo.familyName), ElementsAre(kAurelo.fullName));
  EXPECT_EQ(*packages.Version(kAurelo.fullName), 0x0003'0001'0014'0000U);
}

TEST_F(SimulatedMachineTest, AnUninstallIsToldToTheUsersCatalogsAtItsStartAndItsEnd) {
  machine.users.Add(L"bob");
  machine.users.LogOn(L"ann");
  for (const wchar_t* user : {L"ann", L"bob"}) machine.packages.Install(kAurelo, user);
  auto& packages = *CurrentMachine().packages;
  const UniqueHandle token = TokenAtConsole();
  Impersonation asAnn(token.get());
  const auto mine = packages.OpenCatalogForCurrentUser();
  asAnn.Revert();
  const auto systems = packages.OpenCatalogForCurrentUser();
  Names told;
  const auto handler = [&](const Platform::PackageUninstall& uninstall) {
    machine.timeline.Add(uninstall.FamilyName() + (uninstall.IsComplete() ? L" ended" : L" began"));
  };
  const auto registered = mine->AddUninstalling(handler);
  systems->AddUninstalling(handler);

  machine.packages.Uninstall(kAurelo.familyName, L"ann", 3s);
  machine.clock.Advance(1min);
  mine->RemoveUninstalling(registered);
  EXPECT_THAT(packages.FindForAllUsers(kAurelo.familyName), ElementsAre(kAurelo.fullName));
  machine.packages.Uninstall(kAurelo.familyName, L"bob", 3s);
  machine.clock.Advance(1min);
  EXPECT_THAT(packages.FindForAllUsers(kAurelo.familyName), IsEmpty());

  const std::wstring name = kAurelo.familyName;
  const Names lines = machine.timeline.Lines();
  EXPECT_THAT(
      Names(lines.begin() + 3, lines.end()),
      ElementsAre(L"0.000 ann uninstalls " + name, L"0.000 " + name + L" began",
                  L"3.000 " + name + L" is gone for ann", L"3.000 " + name + L" ended",
                  L"60.000 bob uninstalls " + name, L"63.000 " + name + L" is gone for bob"));
}

TEST_F(SimulatedMachineTest, FilesInMemoryLieOverTheRealOnes) {
  machine.files.Add(L"C:\\Program Files\\Vx\\a.txt", "text");
  auto& files = *CurrentMachine().files;
  const auto content = files.Read(L"C:\\Program Files\\Vx\\a.txt", 4);
  ASSERT_TRUE(content);
  EXPECT_EQ(content->size(), 4U);
  EXPECT_FALSE(files.Read(L"C:\\Program Files\\Vx\\a.txt", 3));
  EXPECT_TRUE(files.OpenReadLocked(L"C:\\Program Files\\Vx\\a.txt"));
  EXPECT_FALSE(files.ExistsByExactName(L"C:\\Program Files\\Vx\\b.txt"));
  EXPECT_TRUE(files.ExistsByExactName(L"C:\\windows"));
  EXPECT_EQ(files.Remove(L"C:\\Program Files\\Vx\\a.txt"), 0U);
  EXPECT_FALSE(files.ExistsByExactName(L"C:\\Program Files\\Vx\\a.txt"));
}

TEST_F(SimulatedMachineTest, PlaysAFirstBootUpToTheCompanionApps) {
  machine.system.EndOobeAt(61s);
  {
    Tests::ServiceFixture host;
    host.service->Start();
    machine.clock.Advance(3min);
    machine.users.LogOn(L"ann");
    machine.packages.Install(kAurelo, L"ann");
    machine.clock.Advance(2h);
    EXPECT_EQ(machine.firmware.BornOnDate().size(), 8U);
  }
  ASSERT_TRUE(machine.Drain());
  EXPECT_THAT(
      machine.timeline.Lines(),
      ElementsAre(
          L"61.000 the firmware's warranty block now begins with 20240117", L"180.000 ann logs on",
          L"180.000 7C3B9E40.AureloCenter_r4x2m8kq7tn3b is installed for ann",
          L"181.000 7C3B9E40.Qubo_r4x2m8kq7tn3b is told { \"command\": \"oobe_completed\" } and "
          L"answers 0",
          L"3781.000 ann starts "
          L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\AureloCenter.exe"));
}

// One life of a service from a start with a user at hand, with a few commands and events.
void LiveOnce(SimulatedMachine& machine) {
  Tests::ServiceFixture host;
  host.service->Start();
  host.Execute(9, LR"({"powerEventType": 7, "eventAction": 1, "commandParams": {"path": "x"}})");
  host.Execute(20, L"{}");
  host.service->OnSessionChange(5);
  host.service->power_event_task(7);
  machine.clock.Advance(1min);
  host.service->OnSessionChange(6);
}

TEST_F(SimulatedMachineTest, AServiceOutlivesAnyKindOfCallThatWindowsRefuses) {
  machine.users.LogOn(L"ann");
  machine.packages.Install(kAurelo, L"ann");
  machine.faults.Clear();
  LiveOnce(machine);
  ASSERT_TRUE(machine.Drain());
  const auto made = machine.faults.Calls();
  const std::set<std::string> kinds(made.begin(), made.end());
  EXPECT_GT(kinds.size(), 25U);
  for (const std::string& kind : kinds) {
    SCOPED_TRACE(kind);
    machine.faults.FailNamed(kind);
    LiveOnce(machine);
    ASSERT_TRUE(machine.Drain());
  }
}

TEST_F(SimulatedMachineTest, AFaultWalkMeetsEachCallOnce) {
  machine.users.LogOn(L"ann");
  machine.packages.Install(kAurelo, L"ann");
  std::vector<std::string> failed;
  for (std::size_t index = 0;; ++index) {
    machine.faults.FailCall(index);
    const bool found = !PackagesAtConsole().empty();
    const auto calls = machine.faults.Calls();
    ASSERT_EQ(found, index >= calls.size() || calls[index] == "Sessions.Revert");
    if (index >= calls.size()) break;
    failed.push_back(calls[index]);
  }
  EXPECT_THAT(failed,
              ElementsAre("Sessions.ActiveConsoleSession", "Sessions.QueryUserToken",
                          "Sessions.Impersonate", "Packages.FindByFamily", "Sessions.Revert"));
}

TEST_F(SimulatedMachineTest, NamedCallsFailAfterThoseThatAreLeftOut) {
  machine.faults.FailNamed("Sessions.QueryUserToken", 1);
  machine.users.LogOn(L"ann");
  EXPECT_NE(TokenAtConsole(), nullptr);
  EXPECT_EQ(TokenAtConsole(), nullptr);
  EXPECT_EQ(TokenAtConsole(), nullptr);
  machine.faults.Clear();
  EXPECT_NE(TokenAtConsole(), nullptr);
  EXPECT_THAT(machine.faults.Calls(),
              ElementsAre("Sessions.ActiveConsoleSession", "Sessions.QueryUserToken"));
}

}  // namespace

}  // namespace Vx::Simulator
