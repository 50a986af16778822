#include "platform/windows/packages.h"

#include "support/test.h"
#include "support/winrt_fakes.h"

#include <combaseapi.h>

namespace Vx::Platform {
namespace {

constexpr wchar_t kFamily[] = L"Some.App_0123456789abc";

class PackageCatalogTest : public Tests::RuntimeTest {
 protected:
  void ExpectNothingLeft() override {
    catalog.reset();
    EXPECT_THAT(handlers, IsEmpty());
    EXPECT_TRUE(handlerState.expired()) << "a handler outlived its last caller";
    RuntimeTest::ExpectNothingLeft();
  }

  PackageCatalog::Token Open() {
    catalog = OpenWindowsPackageCatalog();
    auto state = std::make_shared<int>(0);
    handlerState = state;
    return catalog->AddUninstalling([this, state](const PackageUninstall& uninstall) {
      notified.push_back(uninstall.FamilyName() + (uninstall.IsComplete() ? L" done" : L" begun"));
    });
  }

  std::shared_ptr<PackageCatalog> catalog;
  std::vector<std::wstring> notified;
  std::weak_ptr<int> handlerState;
};

TEST_F(PackageCatalogTest, KeepsTheApartmentAndTellsAHandlerOfEachNotification) {
  Open();
  APTTYPE type{};
  APTTYPEQUALIFIER qualifier{};
  EXPECT_EQ(CoGetApartmentType(&type, &qualifier), S_OK);
  EXPECT_EQ(qualifier, APTTYPEQUALIFIER_IMPLICIT_MTA) << "the thread itself has left";
  EXPECT_EQ(NotifyUninstalling(kFamily, false), S_OK);
  EXPECT_EQ(NotifyUninstalling(kFamily, true), S_OK);
  EXPECT_THAT(notified,
              ElementsAre(std::wstring(kFamily) + L" begun", std::wstring(kFamily) + L" done"));
}

TEST_F(PackageCatalogTest, RemovesTheHandlerOfTheTokenAndNoOther) {
  const auto first = Open();
  catalog->AddUninstalling([this](const PackageUninstall&) { notified.emplace_back(L"second"); });
  catalog->RemoveUninstalling(first);
  catalog->RemoveUninstalling(first);
  catalog->RemoveUninstalling(4711);
  EXPECT_THAT(handlers, SizeIs(1));
  NotifyUninstalling(kFamily, false);
  EXPECT_THAT(notified, ElementsAre(L"second"));
}

// The system may call a handler once more from a copy of its list, or never release it.
TEST_F(PackageCatalogTest, IgnoresANotificationThatComesAfterTheRemoval) {
  for (const bool byCatalog : {false, true}) {
    for (const bool refused : {false, true}) {
      const auto token = Open();
      const auto held = handlers;
      if (refused) FailCall(1);
      byCatalog ? catalog.reset() : catalog->RemoveUninstalling(token);
      EXPECT_THAT(handlers, SizeIs(refused ? 1 : 0));
      handlers = held;
      EXPECT_EQ(NotifyUninstalling(kFamily, false), S_OK);
      handlers.clear();
      EXPECT_THAT(notified, IsEmpty());
    }
  }
}

TEST_F(PackageCatalogTest, LetsAHandlerRemoveItselfWhileItRuns) {
  catalog = OpenWindowsPackageCatalog();
  PackageCatalog::Token token = 0;
  token = catalog->AddUninstalling([&](const PackageUninstall&) {
    notified.emplace_back(L"once");
    catalog->RemoveUninstalling(token);
  });
  NotifyUninstalling(kFamily, false);
  NotifyUninstalling(kFamily, true);
  EXPECT_THAT(notified, ElementsAre(L"once"));
}

TEST_F(PackageCatalogTest, KeepsAHandlersExceptionAwayFromTheSystem) {
  catalog = OpenWindowsPackageCatalog();
  catalog->AddUninstalling([](const PackageUninstall&) { throw std::runtime_error("no"); });
  EXPECT_EQ(NotifyUninstalling(kFamily, false), E_FAIL);
}

TEST_F(PackageCatalogTest, ThrowsTheFailureOfEachStepAndLeavesNothing) {
  ExpectEachFailureTold(5, [this] {
    Open();
    return NotifyUninstalling(kFamily, true);
  });
}

TEST_F(PackageCatalogTest, ThrowsWhenNoCatalogIsPutOut) {
  answerNothing = true;
  EXPECT_THROW(OpenWindowsPackageCatalog(), Platform::WindowsRuntimeError);
}

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

TEST(PackageCatalogWithoutRuntimeTest, ThrowsWhereWindowsHasNoCatalog) {
  EXPECT_THROW(OpenWindowsPackageCatalog(), Platform::WindowsRuntimeError);
}

}  // namespace
}  // namespace Vx::Platform
