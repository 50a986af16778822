// A system thread may enter or leave the module after the host has destroyed the service and freed
// the module. Each case runs in its own process, so that none inherits a loaded module.

#include "hosting/loaded_module.h"
#include "support/test.h"
#include "support/winrt_fakes.h"

namespace Vx::Tests {
namespace {

constexpr wchar_t kFamily[] = L"Some.App_0123456789abc";
constexpr wchar_t kSubscription[] =
    LR"({"catalogEvent":5,"catalogAction":2,"packageFamilyName":"Some.App_0123456789abc",)"
    LR"("catalogActionParams":{"packageFamilyName":"f","appServiceName":"s","payload":{}}})";

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

constexpr auto kUnharmed = 0;

TEST_F(UnloadDeathTest, AnUninstallNotificationMayComeAfterTheModuleWasFreed) {
  EXPECT_EXIT(CallLate(), testing::ExitedWithCode(kUnharmed), "");
}

TEST_F(UnloadDeathTest, ANotificationThatRunsACommandMayReturnAfterTheModuleWasFreed) {
  EXPECT_EXIT(ReturnLate(), testing::ExitedWithCode(kUnharmed), "");
}

// The operation rejects its handler, so the module gives up at once, not after 30 seconds.
TEST_F(UnloadDeathTest, ACompletionThatWasGivenUpMayComeAfterTheModuleWasFreed) {
  EXPECT_EXIT(CompleteLate(), testing::ExitedWithCode(kUnharmed), "");
}

}  // namespace
}  // namespace Vx::Tests
