#include "platform/windows/package_catalog.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "platform/hresult_error.h"
#include "support/winrt_fakes.h"

namespace Vx::Platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Tests::FakeRuntime;

constexpr wchar_t kFamily[] = L"Some.App_0123456789abc";

class PackageCatalogTest : public ::testing::Test {
 protected:
  void TearDown() override {
    catalog.reset();
    runtime.ForgetHandler();
    EXPECT_THAT(runtime.handlers, IsEmpty());
    EXPECT_EQ(FakeRuntime::Count(), FakeRuntime::Alive());
    EXPECT_TRUE(handlerState.expired()) << "a handler outlived all who could call it";
  }

  // A handler that notes what it is told, and whose life TearDown watches.
  PackageCatalog::UninstallingHandler Handler() {
    auto state = std::make_shared<int>(0);
    handlerState = state;
    return [this, state](const PackageUninstall& uninstall) {
      notified.push_back(uninstall.FamilyName() + (uninstall.IsComplete() ? L" done" : L" begun"));
    };
  }

  FakeRuntime runtime;
  std::shared_ptr<PackageCatalog> catalog;
  std::vector<std::wstring> notified;
  std::weak_ptr<int> handlerState;
};

TEST_F(PackageCatalogTest, KeepsTheApartmentAndTellsAHandlerOfEachNotification) {
  catalog = OpenWindowsPackageCatalog();
  catalog->AddUninstalling(Handler());
  EXPECT_EQ(FakeRuntime::Count().apartmentUses, 1);
  EXPECT_EQ(FakeRuntime::Count().apartments, 0);
  EXPECT_EQ(runtime.NotifyUninstalling(kFamily, false), S_OK);
  EXPECT_EQ(runtime.NotifyUninstalling(kFamily, true), S_OK);
  EXPECT_THAT(notified,
              ElementsAre(std::wstring(kFamily) + L" begun", std::wstring(kFamily) + L" done"));
}

TEST_F(PackageCatalogTest, RemovesTheHandlerOfTheTokenAndNoOther) {
  catalog = OpenWindowsPackageCatalog();
  const auto first = catalog->AddUninstalling(
      [this](const PackageUninstall&) { notified.emplace_back(L"first"); });
  catalog->AddUninstalling([this](const PackageUninstall&) { notified.emplace_back(L"second"); });
  catalog->RemoveUninstalling(first);
  catalog->RemoveUninstalling(first);
  catalog->RemoveUninstalling(4711);
  EXPECT_THAT(runtime.handlers, SizeIs(1));
  runtime.NotifyUninstalling(kFamily, false);
  EXPECT_THAT(notified, ElementsAre(L"second"));
}

TEST_F(PackageCatalogTest, IgnoresANotificationThatComesAfterTheRemoval) {
  for (const bool byCatalog : {false, true}) {
    catalog = OpenWindowsPackageCatalog();
    const auto token = catalog->AddUninstalling(Handler());
    const auto held = runtime.LastHandler();
    byCatalog ? catalog.reset() : catalog->RemoveUninstalling(token);
    EXPECT_THAT(runtime.handlers, IsEmpty());
    runtime.handlers[token] = held;
    EXPECT_EQ(runtime.NotifyUninstalling(kFamily, false), S_OK);
    runtime.handlers.clear();
    EXPECT_THAT(notified, IsEmpty());
  }
}

TEST_F(PackageCatalogTest, LetsAHandlerRemoveItselfWhileItRuns) {
  catalog = OpenWindowsPackageCatalog();
  PackageCatalog::Token token = 0;
  token = catalog->AddUninstalling([&](const PackageUninstall&) {
    notified.emplace_back(L"once");
    catalog->RemoveUninstalling(token);
  });
  runtime.NotifyUninstalling(kFamily, false);
  runtime.NotifyUninstalling(kFamily, true);
  EXPECT_THAT(notified, ElementsAre(L"once"));
}

TEST_F(PackageCatalogTest, KeepsAHandlersExceptionAwayFromTheSystem) {
  catalog = OpenWindowsPackageCatalog();
  catalog->AddUninstalling(
      [](const PackageUninstall&) { throw winrt::hresult_error(E_ACCESSDENIED); });
  EXPECT_EQ(runtime.NotifyUninstalling(kFamily, false), E_ACCESSDENIED);
  catalog = OpenWindowsPackageCatalog();
  catalog->AddUninstalling([](const PackageUninstall&) { throw std::runtime_error("no"); });
  EXPECT_EQ(runtime.NotifyUninstalling(kFamily, false), E_FAIL);
}

TEST_F(PackageCatalogTest, ThrowsTheFailureOfEachStepAndLeavesNothing) {
  for (int call = 1; call < 100; ++call) {
    SCOPED_TRACE(call);
    runtime.FailCall(call);
    HRESULT told = S_OK;
    try {
      catalog = OpenWindowsPackageCatalog();
      catalog->AddUninstalling(Handler());
      told = runtime.NotifyUninstalling(kFamily, true);
    } catch (const winrt::hresult_error& error) {
      told = error.code();
    }
    const bool failed = runtime.HasFailed();
    EXPECT_EQ(told, failed ? E_ACCESSDENIED : S_OK);
    runtime.FailCall(-1);
    catalog.reset();
    runtime.ForgetHandler();
    EXPECT_EQ(FakeRuntime::Count(), FakeRuntime::Alive());
    EXPECT_TRUE(handlerState.expired());
    if (!failed) {
      EXPECT_GT(call, 5);
      return;
    }
  }
  FAIL();
}

TEST_F(PackageCatalogTest, DoesNotRunAHandlerThatTheSystemWouldNotLetGo) {
  catalog = OpenWindowsPackageCatalog();
  const auto token = catalog->AddUninstalling(Handler());
  runtime.FailCall(1);
  catalog->RemoveUninstalling(token);
  EXPECT_THAT(runtime.handlers, SizeIs(1));
  runtime.NotifyUninstalling(kFamily, false);
  runtime.handlers.clear();
  EXPECT_THAT(notified, IsEmpty());
}

TEST_F(PackageCatalogTest, ThrowsWhenNoCatalogIsPutOut) {
  runtime.answerNothing = true;
  EXPECT_THROW(OpenWindowsPackageCatalog(), winrt::hresult_error);
}

TEST(PackageCatalogWithoutRuntimeTest, ThrowsWhereWindowsHasNoCatalog) {
  try {
    OpenWindowsPackageCatalog();
    FAIL();
  } catch (const winrt::hresult_error& error) {
    EXPECT_EQ(error.code(), REGDB_E_CLASSNOTREG);
  }
}

}  // namespace
}  // namespace Vx::Platform
