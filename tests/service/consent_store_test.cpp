#include "service/consent_store.h"

#include <utility>

#include <gmock/gmock.h>

#include "platform/machine.h"
#include "simulator/simulated_registry.h"
#include "support/log_capture.h"

namespace Vx::Tests {
namespace {

using Tessel::Server::ConsentStore;

constexpr wchar_t kPolicy[] = L"SOFTWARE\\Policies\\Vx\\Consent";

class ConsentStoreTest : public testing::Test {
 protected:
  Simulator::SimulatedRegistry registry;
  Platform::MachineScope scope{
      [this](Platform::Machine& machine) { machine.registry = &registry; }};
};

// What each value decides is in vxhost/scenarios/consent.json.
TEST_F(ConsentStoreTest, OnlyTheExactTextsDecide) {
  for (const auto& [name, text] :
       {std::pair(L"PCaaS", L"true"), std::pair(L"TransferOutAllowed", L"False "),
        std::pair(L"TransferOutConsentRequired", L"True "),
        std::pair(L"InCountryStorageRequired", L"TRUE")}) {
    registry.SetText(kPolicy, name, text);
  }
  EXPECT_EQ(ConsentStore::Apply(3), 3);
  registry.SetText(kPolicy, L"TransferOutConsentRequired", L"True");
  registry.SetText(kPolicy, L"AllowTransferOutOfCountry", L"accepted");
  EXPECT_EQ(ConsentStore::Apply(3), 0);
}

TEST_F(ConsentStoreTest, AMissingValueIsSilentAndOneThatIsNoTextIsReported) {
  const LogCapture log;
  EXPECT_EQ(ConsentStore::ReadRegistry(kPolicy, L"PCaaS"), L"");
  EXPECT_THAT(log.Lines(), testing::IsEmpty());
  registry.Set(kPolicy, L"PCaaS", {.type = 4, .data = {}});
  EXPECT_EQ(ConsentStore::ReadRegistry(kPolicy, L"PCaaS"), L"");
  EXPECT_THAT(log.Lines(),
              testing::ElementsAre(
                  L"error|Vx::Tessel::Server::ConsentStore::ReadRegistry - Checking consent failed "
                  L"due to unsupported registry type SOFTWARE\\Policies\\Vx\\Consent - PCaaS"));
}

}  // namespace
}  // namespace Vx::Tests
