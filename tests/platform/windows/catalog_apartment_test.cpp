#include <memory>

#include <gtest/gtest.h>

#include "platform/windows/package_catalog.h"
#include "support/thread_identity.h"
#include "support/winrt_fakes.h"

#include <combaseapi.h>

namespace Vx::Platform {
namespace {

class CatalogApartmentTest : public Tests::RuntimeTest {};

TEST_F(CatalogApartmentTest, IsTheMultithreadedOneWhereverTheCallerIs) {
  for (const auto callers : {RO_INIT_SINGLETHREADED, RO_INIT_MULTITHREADED}) {
    for (const bool impersonates : {false, true}) {
      ASSERT_EQ(RoInitialize(callers), S_OK);
      if (impersonates) ImpersonateSelf(SecurityImpersonation);
      auto catalog = OpenWindowsPackageCatalog();
      EXPECT_EQ(catalogApartment, APTTYPE_MTA);
      EXPECT_EQ(openedAsAnother, impersonates);
      EXPECT_EQ(Tests::ThreadActsAsAnother(), impersonates);
      FailCall(1);
      EXPECT_THROW(OpenWindowsPackageCatalog(), WindowsRuntimeError);
      catalog.reset();
      RevertToSelf();
      RoUninitialize();
    }
  }
}

}  // namespace
}  // namespace Vx::Platform
