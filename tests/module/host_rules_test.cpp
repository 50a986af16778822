// Calls at unusual times: by a host while another call runs, and by the system's threads after the
// host has freed the module.

#include "hosting/loaded_module.h"
#include "support/test.h"
#include "support/winrt_fakes.h"

namespace Vx::Tests {
namespace {

constexpr wchar_t kFamily[] = L"Some.App_0123456789abc";
constexpr wchar_t kSubscription[] =
    LR"({"catalogEvent":5,"catalogAction":2,"packageFamilyName":"Some.App_0123456789abc",)"
    LR"("catalogActionParams":{"packageFamilyName":"f","appServiceName":"s","payload":{}}})";

// A system thread may enter or leave the module after the host has destroyed the service and freed
// the module. Each case runs in its own process, so that none inherits a loaded module.
class UnloadDeathTest : public RuntimeTest {
 protected:
  void SetUp() override {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    machinePackages = {L"Some.App_1.0.0.0_x64__0123456789abc"};
  }

  void Load() {
    fakes.emplace();
    store.emplace();
    module.emplace(ModulePath());
    service.emplace(module->NewService());
    EXPECT_EQ(service->Execute(7, kSubscription, L"client").code, 0U);
    held = AwaitHandlers();
  }

  // Ends the service and frees the module. After that, only a delegate can keep the module loaded.
  void Unload(std::size_t threadsOfTheSystem) {
    service.reset();
    module.reset();
    EXPECT_TRUE(ThreadsEnd(quiet + threadsOfTheSystem));
  }

  // Releases the held handlers and exits this process, with code 0 unless a check has failed.
  [[noreturn]] void End() {
    held.clear();
    store.reset();
    fakes.reset();
    ExitProcess(HasFailure() ? 1 : 0);
  }

  void CallLate() {
    Load();
    Unload(0);
    EXPECT_EQ(NotifyUninstalling(kFamily, false, held), S_OK);
    End();
  }

  void ReturnLate() {
    opening.onRequest = true;
    Load();
    std::jthread system([this] { NotifyUninstalling(kFamily, false, held); });
    AwaitPending();
    Unload(1);
    CompletePendingOnes(1);
    system.join();
    End();
  }

  void CompleteLate() {
    opening.onRequest = opening.refusesHandler = true;
    Load();
    EXPECT_EQ(NotifyUninstalling(kFamily, false, held), S_OK);
    Unload(0);
    CompletePendingOnes(1);
    End();
  }

  const std::size_t quiet = ThreadCount();
  std::optional<RegisteredFakes> fakes;
  std::optional<PrivateStore> store;
  std::optional<Hosting::LoadedModule> module;
  std::optional<Hosting::ServiceSession> service;
  Handlers held;  // as system threads hold them
};

TEST_F(UnloadDeathTest, AnUninstallNotificationMayComeAfterTheModuleWasFreed) {
  EXPECT_EXIT(CallLate(), testing::ExitedWithCode(0), "");
}

TEST_F(UnloadDeathTest, ANotificationThatRunsACommandMayReturnAfterTheModuleWasFreed) {
  EXPECT_EXIT(ReturnLate(), testing::ExitedWithCode(0), "");
}

// The operation rejects its handler, so the module gives up at once, not after 30 seconds.
TEST_F(UnloadDeathTest, ACompletionThatWasGivenUpMayComeAfterTheModuleWasFreed) {
  EXPECT_EXIT(CompleteLate(), testing::ExitedWithCode(0), "");
}

class HostRulesTest : public RuntimeTest {
 protected:
  // The module frees strings through the Windows Runtime, so the fakes cannot count them.
  void ExpectNothingLeft() override {}

  RegisteredFakes fakes;
  PrivateStore store;
  Hosting::LoadedModule module{ModulePath()};
  Hosting::ServiceSession service = module.NewService();
};

TEST_F(HostRulesTest, CallsOfSlot8WaitForOneAnother) {
  opening.onRequest = true;
  bool first = false;
  bool second = false;
  {
    const std::jthread one([&] { first = service.Slots()->oobe_event_task(); });
    AwaitPending();
    const std::jthread other([&] { second = service.Slots()->oobe_event_task(); });
    for (int i = 0; i < 20 && openedServices.size() == 1; ++i) Sleep(10);
    EXPECT_EQ(openedServices.size(), 1U);
    CompletePendingOnes(1);
  }
  EXPECT_TRUE(first);
  EXPECT_TRUE(second);
  EXPECT_THAT(messages, ElementsAre(HasSubstr(L"oobe_completed")));
}

}  // namespace
}  // namespace Vx::Tests
