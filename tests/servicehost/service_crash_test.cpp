// Kills the installed service in the middle of commands and store writes, and checks that nothing
// acknowledged is lost. Uses the machine's store, so no other test may run at the same time.

#include "platform/files.h"
#include "platform/thread.h"
#include "servicehost/guarded_folder.h"
#include "support/test.h"
#include "vxhost/service/pipe_client.h"
#include "vxhost/service/service_manager.h"

namespace Vx::Hosting::ServiceHost {
namespace {

class ServiceCrashTest : public ::testing::Test {
 protected:
  ServiceCrashTest() {
    Tests::RemoveTree(data);
    PrepareFolders(ProgramDataFolder(), Writers::Account, Existing::Report);
    Tool::ServicePlan plan{.name = name,
                           .program = Tests::BuiltFile(L"..\\bin\\OrvaneHost.exe"),
                           .module = Tests::ModulePath()};
    plan.start = Tool::ServicePlan::Start::Demand;
    manager.Install(plan);
  }

  ~ServiceCrashTest() override {
    manager.Stop(name);
    manager.Remove(name);
    Tests::RemoveTree(data);
  }

  static std::wstring Subscription(int number) {
    return LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\s-)" +
           std::to_wstring(number) + LR"(.exe"}})";
  }

  Platform::UniqueHandle Process() const {
    return Platform::UniqueHandle(
        OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, Tool::ProcessOfService(name)));
  }

  // Returns whether a write is in progress, or was when the service was killed.
  bool Writing() const {
    const auto siblings = Platform::CurrentMachine().files->Siblings(store);
    return siblings && !siblings->empty();
  }

  // Subscribes until the service is killed. Returns the number of acknowledged subscriptions.
  int SubscribeUntilKilled(int first) {
    int number = first;
    try {
      Tool::PipeClient client = Tool::ConnectToService(name);
      while (client.Execute({9, Subscription(number)}).code == 0) {
        ++number;
        inFlight = true;
      }
      ADD_FAILURE() << "refused subscription " << number;
    } catch (const std::exception&) {
      // The service ended in the middle of the command.
    }
    return number - first;
  }

  const std::wstring name = L"VxCrash" + std::to_wstring(GetCurrentProcessId());
  const std::wstring data = ProgramDataFolder() + L"\\Vx";
  const std::wstring store = data + L"\\SharedServices\\shared_store.dat";
  Tool::ServiceManager manager;
  std::atomic<bool> inFlight{false};
};

TEST_F(ServiceCrashTest, NoKillLosesAnAcknowledgedSubscription) {
  const int wanted = static_cast<int>(Tests::Setting("VX_KILLS", 6));
  int acknowledged = 0;
  int cut = 0;
  int round = 0;
  for (; round < wanted || (cut == 0 && round < 10 * wanted); ++round) {
    manager.Start(name);
    const Platform::UniqueHandle process = Process();
    ASSERT_NE(process, nullptr);
    inFlight = false;
    int added = 0;
    Platform::Thread client([&] { added = SubscribeUntilKilled(acknowledged); });
    while (!inFlight) Sleep(1);
    const ULONGLONG end = GetTickCount64() + 2000;
    while (!Writing() && GetTickCount64() < end) continue;
    EXPECT_TRUE(TerminateProcess(process.get(), 1));
    client.Join();
    EXPECT_EQ(WaitForSingleObject(process.get(), 10'000), WAIT_OBJECT_0);
    cut += Writing() ? 1 : 0;
    acknowledged += added;
    manager.Start(name);
    const auto list = Tool::ConnectToService(name).Execute({20, L"{}"}).text;
    ASSERT_TRUE(list);
    for (int number = 0; number < acknowledged; ++number) {
      ASSERT_THAT(*list, HasSubstr(L"s-" + std::to_wstring(number) + L".exe\""));
    }
    const Platform::UniqueHandle last = Process();
    manager.Stop(name);
    EXPECT_EQ(WaitForSingleObject(last.get(), 0), WAIT_OBJECT_0) << "its files are still in use";
  }
  std::printf("%d kills, %d of them in a store write; %d subscriptions acknowledged\n", round, cut,
              acknowledged);
  EXPECT_GE(cut, 1);
  EXPECT_GE(acknowledged, wanted);
}

}  // namespace
}  // namespace Vx::Hosting::ServiceHost
