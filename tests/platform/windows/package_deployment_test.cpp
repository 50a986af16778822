#include "platform/windows/package_deployment.h"

#include <chrono>
#include <string>
#include <thread>

#include "gmock/gmock.h"
#include "support/winrt_fakes.h"

namespace Vx::Platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

constexpr wchar_t kFamily[] = L"Some.App_0123456789abc";
constexpr wchar_t kFirst[] = L"Some.App_1.0.0.0_x64__0123456789abc";
constexpr wchar_t kSecond[] = L"Some.App_2.0.0.0_x64__0123456789abc";
constexpr HRESULT kRefused = static_cast<HRESULT>(0x80073CF6);

class PackageDeploymentTest : public Tests::RuntimeTest {};

TEST_F(PackageDeploymentTest, ListsTheFamilysPackagesOfTheMachineOrOfOneUserInOrder) {
  machinePackages = {kFirst, kSecond};
  userPackages[L"S-1-5-21-1"] = {kFirst};
  userPackages[L"S-1-5-21-2"] = {kSecond};
  EXPECT_THAT(FamilyPackagesOfMachine(kFamily), ElementsAre(kFirst, kSecond));
  EXPECT_THAT(FamilyPackagesOfUser(L"S-1-5-21-2", kFamily), ElementsAre(kSecond));
  EXPECT_THAT(FamilyPackagesOfUser(L"S-1-5-21-3", kFamily), IsEmpty());
  EXPECT_THAT(familiesAsked, testing::Each(kFamily));
}

TEST_F(PackageDeploymentTest, ReadsAMissingCollectionAsNoPackagesAndRefusesAMissingOperation) {
  answerNothing = true;
  EXPECT_THAT(FamilyPackagesOfMachine(kFamily), IsEmpty());
  EXPECT_THROW(RegisterStagedPackage(kFirst, 1ms), Platform::WindowsRuntimeError);
}

TEST_F(PackageDeploymentTest, TellsTheFailureOfEachStep) {
  machinePackages = {kFirst, kSecond};
  ExpectEachFailureTold(5, [] {
    FamilyPackagesOfMachine(kFamily);
    return S_OK;
  });
  ExpectEachFailureTold(5, [] { return RegisterStagedPackage(kFirst, 10s).result; });
}

TEST_F(PackageDeploymentTest, RegistersByFullNameWithoutAnErrorText) {
  errorText = L"not to be shown after a success";
  const PackageRegistration registration = RegisterStagedPackage(kFirst, 10s);
  EXPECT_EQ(registration.result, S_OK);
  EXPECT_EQ(registration.errorText, L"");
  EXPECT_THAT(registered, ElementsAre(kFirst));
}

TEST_F(PackageDeploymentTest, ReportsWhatTheDeploymentSaysOfItsFailure) {
  using enum Abi::AsyncStatus;
  constexpr HRESULT kCancelled = HRESULT_FROM_WIN32(ERROR_CANCELLED);
  static constexpr struct {
    const char* name;
    Abi::AsyncStatus status;
    HRESULT error;
    HRESULT extendedError;
    HRESULT result;
  } kCases[] = {
      {"failed", Error, kRefused, S_OK, kRefused},
      {"failed without a reason", Error, S_OK, S_OK, E_FAIL},
      {"cancelled by somebody", Canceled, S_OK, S_OK, kCancelled},
      {"completed, but with an error", Completed, S_OK, kRefused, kRefused},
  };
  errorText = L"The package is in use.";
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    deployment = {.status = c.status, .error = c.error};
    extendedErrorCode = c.extendedError;
    const PackageRegistration registration = RegisterStagedPackage(kFirst, 10s);
    EXPECT_EQ(registration.result, c.result);
    EXPECT_EQ(registration.errorText, errorText);
  }
}

TEST_F(PackageDeploymentTest, WaitsForADeploymentThatEndsLater) {
  deployment.onRequest = true;
  std::thread system([this] { CompletePendingOnes(1); });
  EXPECT_EQ(RegisterStagedPackage(kFirst, 10s).result, S_OK);
  EXPECT_EQ(cancelled, 0);
  system.join();
}

TEST_F(PackageDeploymentTest, GivesUpAndCancelsADeploymentThatDoesNotEnd) {
  deployment.onRequest = true;
  EXPECT_EQ(RegisterStagedPackage(kFirst, 1ms).result, HRESULT_FROM_WIN32(ERROR_TIMEOUT));
  EXPECT_EQ(cancelled, 1);
  EXPECT_TRUE(CompletePending()) << "its end finds nobody, and does no harm";
}

TEST(PackageDeploymentWithoutRuntimeTest, ThrowsWhereWindowsHasNoPackageManager) {
  EXPECT_THROW(FamilyPackagesOfMachine(kFamily), Platform::WindowsRuntimeError);
}

}  // namespace
}  // namespace Vx::Platform
