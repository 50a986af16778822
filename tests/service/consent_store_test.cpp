#include "service/consent_store.h"

#include <array>
#include <iterator>

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

TEST_F(ConsentStoreTest, FollowsThePolicyInEveryCombination) {
  static constexpr struct {
    const wchar_t* name;
    const wchar_t* decisive;
    const wchar_t* other;
  } kValues[] = {
      {L"PCaaS", L"True", L"true"},
      {L"TransferOutAllowed", L"False", L"True"},
      {L"TransferOutConsentRequired", L"True", L"True "},
      {L"AllowTransferOutOfCountry", L"Accepted", L"Declined"},
      {L"InCountryStorageRequired", L"True", L"TRUE"},
  };
  constexpr int kState = 3;
  for (int combination = 0; combination < 243; ++combination) {
    std::array<bool, std::size(kValues)> reads{};
    int rest = combination;  // a digit per value: decisive, other or absent
    for (std::size_t i = 0; i < reads.size(); ++i, rest /= 3) {
      reads[i] = rest % 3 == 0;
      registry.SetText(kPolicy, kValues[i].name, reads[i] ? kValues[i].decisive : kValues[i].other);
      if (rest % 3 == 2) registry.Remove(kPolicy, kValues[i].name);
    }
    const bool told = !reads[0] && !reads[1] && !(reads[2] && !reads[3]) && !reads[4];
    EXPECT_EQ(ConsentStore::Apply(kState), told ? kState : 0) << "combination " << combination;
  }
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
