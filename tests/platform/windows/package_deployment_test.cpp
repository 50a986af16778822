#include "platform/windows/package_deployment.h"

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "platform/hresult_error.h"
#include "support/winrt_fakes.h"

namespace Vx::Platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono_literals;
using Tests::Completion;
using Tests::FakeRuntime;

constexpr wchar_t kFamily[] = L"Some.App_0123456789abc";
constexpr wchar_t kFirst[] = L"Some.App_1.0.0.0_x64__0123456789abc";
constexpr wchar_t kSecond[] = L"Some.App_2.0.0.0_x64__0123456789abc";
constexpr HRESULT kRefused = static_cast<HRESULT>(0x80073CF6);
constexpr HRESULT kTimedOut = static_cast<HRESULT>(0x800705B4);

// Every test ends with nothing of the runtime left over.
class PackageDeploymentTest : public ::testing::Test {
 protected:
  void TearDown() override {
    runtime.DropPending();
    EXPECT_EQ(FakeRuntime::Count(), FakeRuntime::Alive());
  }

  // A registration whose deployment ends on another thread.
  PackageRegistration RegisterAndFinishLater() {
    runtime.deployment.completion = Completion::OnRequest;
    std::thread finisher([this] {
      while (!runtime.CompletePending()) std::this_thread::yield();
    });
    PackageRegistration registration = RegisterStagedPackage(kFirst, 10s);
    finisher.join();
    return registration;
  }

  FakeRuntime runtime;
};

TEST_F(PackageDeploymentTest, ListsTheFamilysPackagesOfTheMachineInOrder) {
  runtime.machinePackages = {kFirst, kSecond};
  EXPECT_THAT(FamilyPackagesOfMachine(kFamily), ElementsAre(kFirst, kSecond));
  EXPECT_THAT(runtime.familiesAsked, ElementsAre(kFamily));
}

TEST_F(PackageDeploymentTest, ListsTheFamilysPackagesOfOneUserOnly) {
  runtime.userPackages[L"S-1-5-21-1"] = {kFirst};
  runtime.userPackages[L"S-1-5-21-2"] = {kSecond};
  EXPECT_THAT(FamilyPackagesOfUser(L"S-1-5-21-2", kFamily), ElementsAre(kSecond));
  EXPECT_THAT(FamilyPackagesOfUser(L"S-1-5-21-3", kFamily), IsEmpty());
}

TEST_F(PackageDeploymentTest, ReadsAMissingCollectionAsNoPackagesAndRefusesAMissingOperation) {
  runtime.answerNothing = true;
  EXPECT_THAT(FamilyPackagesOfMachine(kFamily), IsEmpty());
  EXPECT_THROW(RegisterStagedPackage(kFirst, 1ms), winrt::hresult_error);
}

// Runs `operation`, which answers an HRESULT, with the first call into the runtime failing, then
// the second, and so on to the last, and expects each run to fail so and to leave nothing behind.
template <typename Operation>
void ExpectEachFailureTold(FakeRuntime& runtime, Operation operation) {
  for (int call = 1; call < 100; ++call) {
    SCOPED_TRACE(call);
    runtime.FailCall(call);
    HRESULT result = S_OK;
    try {
      result = operation();
    } catch (const winrt::hresult_error& error) {
      result = error.code();
      EXPECT_FALSE(error.message().empty());
    }
    EXPECT_EQ(FakeRuntime::Count(), FakeRuntime::Alive());
    EXPECT_EQ(result, runtime.HasFailed() ? E_ACCESSDENIED : S_OK);
    if (runtime.HasFailed()) continue;
    EXPECT_GT(call, 5) << "hardly any step was tried";
    return;
  }
  FAIL() << "the operation never came to its end";
}

TEST_F(PackageDeploymentTest, TellsTheFailureOfEachStep) {
  runtime.machinePackages = {kFirst, kSecond};
  ExpectEachFailureTold(runtime, [] {
    FamilyPackagesOfMachine(kFamily);
    return S_OK;
  });
  ExpectEachFailureTold(runtime, [] { return RegisterStagedPackage(kFirst, 10s).result; });
}

TEST_F(PackageDeploymentTest, RegistersByFullNameWithoutAnErrorText) {
  runtime.deployment.errorText = L"not to be shown after a success";
  const PackageRegistration registration = RegisterStagedPackage(kFirst, 10s);
  EXPECT_EQ(registration.result, S_OK);
  EXPECT_EQ(registration.errorText, L"");
  EXPECT_THAT(runtime.registered, ElementsAre(kFirst));
}

TEST_F(PackageDeploymentTest, ReportsWhatTheDeploymentSaysOfItsFailure) {
  static constexpr struct {
    const char* name;
    Abi::AsyncStatus status;
    HRESULT errorCode;
    HRESULT extendedErrorCode;
    HRESULT result;
  } kCases[] = {
      {"failed", Abi::AsyncStatus::Error, kRefused, S_OK, kRefused},
      {"failed without a reason", Abi::AsyncStatus::Error, S_OK, S_OK, E_FAIL},
      {"cancelled by somebody", Abi::AsyncStatus::Canceled, S_OK, S_OK,
       static_cast<HRESULT>(0x800704C7)},
      {"completed, but with an error", Abi::AsyncStatus::Completed, S_OK, kRefused, kRefused},
      {"over without an outcome", Abi::AsyncStatus::Started, S_OK, S_OK, E_FAIL},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    runtime.deployment.status = c.status;
    runtime.deployment.errorCode = c.errorCode;
    runtime.deployment.extendedErrorCode = c.extendedErrorCode;
    runtime.deployment.errorText = L"The package is in use.";
    const PackageRegistration registration = c.status == Abi::AsyncStatus::Started
                                                 ? RegisterAndFinishLater()
                                                 : RegisterStagedPackage(kFirst, 10s);
    EXPECT_EQ(registration.result, c.result);
    EXPECT_EQ(registration.errorText, L"The package is in use.");
  }
}

TEST_F(PackageDeploymentTest, WaitsForADeploymentThatEndsLater) {
  EXPECT_EQ(RegisterAndFinishLater().result, S_OK);
  EXPECT_EQ(runtime.cancelled, 0);
}

TEST_F(PackageDeploymentTest, GivesUpAndCancelsADeploymentThatDoesNotEnd) {
  runtime.deployment.completion = Completion::OnRequest;
  const PackageRegistration registration = RegisterStagedPackage(kFirst, 1ms);
  EXPECT_EQ(registration.result, kTimedOut);
  EXPECT_EQ(runtime.cancelled, 1);
  EXPECT_TRUE(runtime.CompletePending()) << "its end finds nobody, and does no harm";
}

TEST(PackageDeploymentWithoutRuntimeTest, ThrowsWhereWindowsHasNoPackageManager) {
  try {
    FamilyPackagesOfMachine(kFamily);
    FAIL();
  } catch (const winrt::hresult_error& error) {
    EXPECT_EQ(error.code(), REGDB_E_CLASSNOTREG);
  }
}

}  // namespace
}  // namespace Vx::Platform
