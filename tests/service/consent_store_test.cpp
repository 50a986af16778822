#include "service/consent_store.h"

#include "simulator/simulated_registry.h"
#include "support/test.h"

namespace Vx::Tests {
namespace {

using Tessel::Server::ConsentStore;

constexpr wchar_t kPolicy[] = L"SOFTWARE\\Policies\\Vx\\Consent";

// vxhost/scenarios/consent.json covers the effect of each text.
TEST(ConsentStoreTest, AMissingValueIsSilentAndOneThatIsNoTextIsReported) {
  Simulator::SimulatedRegistry registry;
  const Platform::MachineScope scope(
      [&](Platform::Machine& machine) { machine.registry = &registry; });
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
