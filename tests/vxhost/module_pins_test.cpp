#include "vxhost/module_pins.h"

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/probe.h"

namespace Vx::Host {
namespace {

using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// This program links the same sets as the module that trusts the tests' authority.
TEST(ModulePinsTest, AreTheCompiledSets) {
  const ModulePins pins(Tests::TestModulePath());
  EXPECT_THAT(pins.General(), ElementsAreArray(Tessel::Security::GeneralKeys()));
  EXPECT_THAT(pins.Restricted(), ElementsAreArray(Tessel::Security::RestrictedKeys()));
  EXPECT_THAT(pins.General(), SizeIs(2));
  EXPECT_THAT(pins.Restricted(), SizeIs(1));
}

TEST(ModulePinsTest, OfABuildWithoutKeysAreEmptyAndOfAnotherFileAnError) {
  const ModulePins none(Tests::ModulePath());
  EXPECT_THAT(none.General(), IsEmpty());
  EXPECT_THAT(none.Restricted(), IsEmpty());
  EXPECT_THROW(ModulePins(L"C:\\windows\\system32\\kernel32.dll"), std::runtime_error);
  EXPECT_THROW(ModulePins(Tests::TestFolder() + L"\\missing.dll"), std::runtime_error);
}

}  // namespace
}  // namespace Vx::Host
