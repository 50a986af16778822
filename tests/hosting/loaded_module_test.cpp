#include "hosting/loaded_module.h"

#include "hosting/fake_service.h"
#include "support/memory_shortage.h"

namespace Vx::Hosting {
namespace {

TEST(ServiceSessionTest, GivesEverythingBackWhicheverAllocationFails) {
  FakeService counting;
  ServiceSession session(&counting);
  const std::wstring request(40, L' ');
  const std::wstring caller(40, L'c');
  bool failed = false;
  const auto execute = [&] {
    try {
      session.Execute(20, request, caller);
    } catch (const std::bad_alloc&) {
      failed = true;
    }
  };
  Tests::FailEachAllocation(Tests::Shortage::Once, execute, [&] {
    EXPECT_EQ(counting.contexts, 0);
    EXPECT_EQ(counting.responses, 0);
  });
  EXPECT_TRUE(failed);
}

}  // namespace
}  // namespace Vx::Hosting
