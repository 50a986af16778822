// What a host that breaks a rule of the contract, or that calls at once what others call one after
// the other, gets from the module as it ships.

#include <cstdint>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hosting/loaded_module.h"
#include "platform/unique_handle.h"
#include "storage/request_manager.h"
#include "support/probe.h"
#include "support/temp_folder.h"
#include "support/winrt_fakes.h"

#include <windows.h>

namespace Vx::Tests {
namespace {

using Tessel::Server::Services::Orvane::kPackageSubscriptions;
using Tessel::Server::Services::Orvane::kServiceDocument;
using Tessel::Server::Services::Orvane::RequestManager;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class HostRulesTest : public RuntimeTest {
 protected:
  // The module has the Windows Runtime itself delete the strings of the fakes.
  void ExpectNothingLeft() override {}

  RegisteredFakes fakes;
  PrivateStore store;
  Host::LoadedModule module{ModulePath()};
  Host::ServiceSession service = module.NewService();
};

TEST_F(HostRulesTest, CallsOfSlot8WaitForOneAnother) {
  opening.onRequest = true;
  bool first = false;
  bool second = false;
  {
    const std::jthread one([&] { first = service.Slots().oobe_event_task(); });
    AwaitPending();
    const std::jthread other([&] { second = service.Slots().oobe_event_task(); });
    for (int i = 0; i < 20 && openedServices.size() == 1; ++i) Sleep(10);
    EXPECT_EQ(openedServices.size(), 1U);
    CompletePendingOnes(1);
  }
  EXPECT_TRUE(first);
  EXPECT_TRUE(second);
  EXPECT_THAT(messages, ElementsAre(HasSubstr(L"oobe_completed")));
}

// Also the removals that another object could not complete before it went.
TEST_F(HostRulesTest, SeveralObjectsShareTheStoreAndTheRemovalsThatWait) {
  constexpr wchar_t kPower[] =
      LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\a.exe"}})";
  constexpr wchar_t kPackage[] =
      LR"({"catalogEvent":5,"catalogAction":2,"packageFamilyName":"Some.App_0123456789abc",)"
      LR"("catalogActionParams":{"packageFamilyName":"f","appServiceName":"s","payload":{}}})";
  const auto stored = [] {
    return RequestManager(kServiceDocument, kPackageSubscriptions).StoredRequests();
  };
  machinePackages = {L"Some.App_1.0.0.0_x64__0123456789abc"};
  Host::ServiceSession other = module.NewService();
  EXPECT_EQ(service.Execute(9, kPower, L"client").code, 0U);
  EXPECT_THAT(other.Execute(20, L"{}", L"client").text.value_or(L""), HasSubstr(L"a.exe"));
  EXPECT_EQ(service.Execute(7, kPackage, L"client").code, 0U);
  const Handlers held = AwaitHandlers();
  {
    // Its content can be read, but the file not replaced.
    const auto inUse =
        Platform::AdoptFile(CreateFileW(store.FilePath().c_str(), GENERIC_READ, FILE_SHARE_READ,
                                        nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_NE(inUse, nullptr);
    EXPECT_EQ(NotifyUninstalling(L"Some.App_0123456789abc", true, held), S_OK);
    service.End();
    EXPECT_EQ(messages.size(), 1U);
    EXPECT_THAT(stored(), HasSubstr(L"Some.App"));
  }
  other.End();
  for (int tries = 0; tries < 100 && stored() != L"[]"; ++tries) Sleep(20);
  EXPECT_EQ(stored(), L"[]");
}

}  // namespace
}  // namespace Vx::Tests
