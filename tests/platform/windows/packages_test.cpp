#include "platform/windows/packages.h"

#include "support/test.h"
#include "support/winrt_fakes.h"

namespace Vx::Platform {
namespace {

constexpr wchar_t kFullName[] = L"Some.App_1.2.3.4_x64__0123456789abc";
constexpr wchar_t kPath[] = L"C:\\Program Files\\WindowsApps\\Some.App";

// The results of the functions below, which, like the real ones, take no context parameter.
struct Answers {
  long sizeStatus = ERROR_INSUFFICIENT_BUFFER;
  long fetchStatus = ERROR_SUCCESS;
  std::uint32_t filters = 0;
} answers;

long __stdcall FindByFamily(const wchar_t*, std::uint32_t filters, std::uint32_t* count,
                            wchar_t** names, std::uint32_t* length, wchar_t* buffer,
                            std::uint32_t*) {
  answers.filters = filters;
  if (buffer == nullptr) {
    *count = answers.sizeStatus == ERROR_INSUFFICIENT_BUFFER ? 2 : 0;
    *length = 4 * *count;
    return answers.sizeStatus;
  }
  if (answers.fetchStatus != ERROR_SUCCESS) return answers.fetchStatus;
  std::wmemcpy(buffer, L"one\0two", 8);
  names[0] = buffer;
  names[1] = buffer + 4;
  return ERROR_SUCCESS;
}

long __stdcall PathByFullName(const wchar_t*, std::uint32_t* length, wchar_t* path) {
  if (path == nullptr) {
    *length = std::size(kPath);
    return answers.sizeStatus;
  }
  if (answers.fetchStatus == ERROR_SUCCESS) std::wmemcpy(path, kPath, std::size(kPath));
  return answers.fetchStatus;
}

long __stdcall StagedOrigin(const wchar_t*, std::int32_t* origin) {
  *origin = 3;
  return answers.fetchStatus;
}

long __stdcall ShortId(const wchar_t*, std::uint32_t, std::uint32_t* length, std::uint8_t* buffer) {
  *length = 12;
  return buffer == nullptr ? ERROR_INSUFFICIENT_BUFFER : ERROR_SUCCESS;
}

class PackageQueriesTest : public ::testing::Test {
 protected:
  PackageQueriesTest() { answers = Answers(); }

  const std::unique_ptr<Packages> packages =
      MakeWindowsPackages({&FindByFamily, &PathByFullName, &StagedOrigin, &ShortId});
};

TEST_F(PackageQueriesTest, FetchesTheFamilyInTwoCallsWithTheDocumentedFilter) {
  const auto query = packages->FindByFamily(L"family");
  EXPECT_THAT(query.fullNames, ElementsAre(L"one", L"two"));
  EXPECT_EQ(query.bufferLength, 8U);
  EXPECT_EQ(query.error, 0U);
  EXPECT_EQ(answers.filters, 0xF0U);
}

TEST_F(PackageQueriesTest, FindsThePathAndTheOrigin) {
  EXPECT_EQ(packages->PathByFullName(kFullName).path, kPath);
  EXPECT_EQ(packages->PathByFullName(kFullName).sizeError, 0U);
  EXPECT_EQ(*packages->StagedOrigin(kFullName), 3);
}

TEST_F(PackageQueriesTest, StopsAfterTheFirstCallWhenThereIsNothing) {
  for (const std::uint32_t status : {0U, 87U, 1168U}) {  // success, invalid parameter, not found
    answers.sizeStatus = static_cast<long>(status);
    const auto query = packages->FindByFamily(L"family");
    EXPECT_EQ(query.sizeError, status);
    EXPECT_EQ(query.bufferLength, 0U);
    EXPECT_THAT(query.fullNames, IsEmpty());
    EXPECT_EQ(packages->PathByFullName(kFullName).sizeError, status);
  }
}

TEST_F(PackageQueriesTest, TellsTheFailureOfTheFetch) {
  constexpr std::uint32_t kGrown = ERROR_INSUFFICIENT_BUFFER;  // a package was added in between
  answers.fetchStatus = ERROR_INSUFFICIENT_BUFFER;
  EXPECT_EQ(packages->FindByFamily(L"family").error, kGrown);
  EXPECT_THAT(packages->FindByFamily(L"family").fullNames, IsEmpty());
  EXPECT_EQ(packages->PathByFullName(kFullName).error, kGrown);
  EXPECT_EQ(packages->StagedOrigin(kFullName).Error(), kGrown);
}

TEST_F(PackageQueriesTest, AnswersForFunctionsThatThisWindowsLacks) {
  constexpr std::uint32_t kMissing = ERROR_PROC_NOT_FOUND;
  const auto none = MakeWindowsPackages({});
  EXPECT_EQ(none->FindByFamily(L"family").sizeError, kMissing);
  EXPECT_EQ(none->PathByFullName(kFullName).sizeError, kMissing);
  EXPECT_EQ(none->StagedOrigin(kFullName).Error(), kMissing);
  EXPECT_EQ(none->Version(kFullName).Error(), kMissing);
}

TEST_F(PackageQueriesTest, PacksTheVersionWithMajorHighestAndRefusesAShortIdentity) {
  const Packages& real = *WindowsMachine().packages;
  EXPECT_EQ(*real.Version(kFullName), 0x0001'0002'0003'0004U);
  EXPECT_FALSE(real.Version(L"no full name"));
  EXPECT_EQ(packages->Version(kFullName).Error(), std::uint32_t{ERROR_INVALID_DATA});
}

TEST(AccountSidTest, FindsUsersAndGroupsOfThisMachineOnly) {
  EXPECT_EQ(*WindowsMachine().packages->AccountSid(L"NT AUTHORITY\\SYSTEM"), L"S-1-5-18");
  EXPECT_EQ(WindowsMachine().packages->AccountSid(L"nowhere\\nobody at all").Error(),
            std::uint32_t{ERROR_NONE_MAPPED});
  wchar_t computer[MAX_COMPUTERNAME_LENGTH + 1];
  DWORD length = static_cast<DWORD>(std::size(computer));
  ASSERT_NE(GetComputerNameW(computer, &length), FALSE);
  EXPECT_EQ(WindowsMachine().packages->AccountSid(computer).Error(),
            std::uint32_t{ERROR_NONE_MAPPED});
}

constexpr wchar_t kFamily[] = L"Some.App_0123456789abc";
constexpr wchar_t kFirst[] = L"Some.App_1.0.0.0_x64__0123456789abc";
constexpr wchar_t kSecond[] = L"Some.App_2.0.0.0_x64__0123456789abc";
constexpr HRESULT kRefused = static_cast<HRESULT>(0x80073CF6);

class PackageDeploymentTest : public Tests::RuntimeTest {};

TEST_F(PackageDeploymentTest, ListsTheFamilysPackagesOfTheMachineOrOfOneUserInOrder) {
  machinePackages = {kFirst, kSecond};
  userPackages[L"S-1-5-21-1"] = {kFirst};
  userPackages[L"S-1-5-21-2"] = {kSecond};
  EXPECT_THAT(WindowsMachine().packages->FindForAllUsers(kFamily), ElementsAre(kFirst, kSecond));
  EXPECT_THAT(WindowsMachine().packages->FindForUser(L"S-1-5-21-2", kFamily), ElementsAre(kSecond));
  EXPECT_THAT(WindowsMachine().packages->FindForUser(L"S-1-5-21-3", kFamily), IsEmpty());
  EXPECT_THAT(familiesAsked, testing::Each(kFamily));
}

TEST_F(PackageDeploymentTest, ReadsAMissingCollectionAsNoPackagesAndRefusesAMissingOperation) {
  answerNothing = true;
  EXPECT_THAT(WindowsMachine().packages->FindForAllUsers(kFamily), IsEmpty());
  EXPECT_THROW(WindowsMachine().packages->Register(kFirst, 1ms), Platform::WindowsRuntimeError);
}

TEST_F(PackageDeploymentTest, TellsTheFailureOfEachStep) {
  machinePackages = {kFirst, kSecond};
  ExpectEachFailureTold(5, [] {
    WindowsMachine().packages->FindForAllUsers(kFamily);
    return S_OK;
  });
  ExpectEachFailureTold(5, [] { return WindowsMachine().packages->Register(kFirst, 10s).result; });
}

TEST_F(PackageDeploymentTest, RegistersByFullNameWithoutAnErrorText) {
  errorText = L"not to be shown after a success";
  const PackageRegistration registration = WindowsMachine().packages->Register(kFirst, 10s);
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
      {"cancelled elsewhere", Canceled, S_OK, S_OK, kCancelled},
      {"completed, but with an error", Completed, S_OK, kRefused, kRefused},
  };
  errorText = L"The package is in use.";
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    deployment = {.status = c.status, .error = c.error};
    extendedErrorCode = c.extendedError;
    const PackageRegistration registration = WindowsMachine().packages->Register(kFirst, 10s);
    EXPECT_EQ(registration.result, c.result);
    EXPECT_EQ(registration.errorText, errorText);
  }
}

TEST_F(PackageDeploymentTest, GivesUpAndCancelsADeploymentThatDoesNotEnd) {
  deployment.onRequest = true;
  EXPECT_EQ(WindowsMachine().packages->Register(kFirst, 1ms).result,
            HRESULT_FROM_WIN32(ERROR_TIMEOUT));
  EXPECT_EQ(cancelled, 1);
  EXPECT_TRUE(CompletePending()) << "its late end is ignored";
}

TEST(PackageDeploymentWithoutRuntimeTest, ThrowsWhereWindowsHasNoPackageManager) {
  EXPECT_THROW(WindowsMachine().packages->FindForAllUsers(kFamily), Platform::WindowsRuntimeError);
}

}  // namespace
}  // namespace Vx::Platform
