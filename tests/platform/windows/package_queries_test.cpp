#include "platform/windows/package_queries.h"

#include <cwchar>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include <windows.h>

namespace Vx::Platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr wchar_t kFullName[] = L"Some.App_1.2.3.4_x64__0123456789abc";
constexpr wchar_t kPath[] = L"C:\\Program Files\\WindowsApps\\Some.App";

constexpr std::uint32_t kSuccess = ERROR_SUCCESS;
constexpr std::uint32_t kInsufficientBuffer = ERROR_INSUFFICIENT_BUFFER;
constexpr std::uint32_t kInvalidParameter = ERROR_INVALID_PARAMETER;
constexpr std::uint32_t kNotFound = ERROR_NOT_FOUND;
constexpr std::uint32_t kProcNotFound = ERROR_PROC_NOT_FOUND;
constexpr std::uint32_t kInvalidData = ERROR_INVALID_DATA;
constexpr std::uint32_t kNoneMapped = ERROR_NONE_MAPPED;

// How the functions below answer; the real ones take no context either.
struct Answers {
  long sizeStatus = ERROR_INSUFFICIENT_BUFFER;
  long fetchStatus = ERROR_SUCCESS;
  std::uint32_t count = 2;
  std::uint32_t filters = 0;
} answers;

long __stdcall FindByFamily(const wchar_t*, std::uint32_t filters, std::uint32_t* count,
                            wchar_t** names, std::uint32_t* length, wchar_t* buffer,
                            std::uint32_t*) {
  answers.filters = filters;
  if (buffer == nullptr) {
    if (answers.sizeStatus == ERROR_INSUFFICIENT_BUFFER) {
      *count = answers.count;
      *length = 8;
    }
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
    if (answers.sizeStatus == ERROR_INSUFFICIENT_BUFFER) *length = std::size(kPath);
    return answers.sizeStatus;
  }
  if (answers.fetchStatus == ERROR_SUCCESS) std::wmemcpy(path, kPath, std::size(kPath));
  return answers.fetchStatus;
}

long __stdcall StagedOrigin(const wchar_t*, std::int32_t* origin) {
  if (answers.fetchStatus == ERROR_SUCCESS) *origin = 3;
  return answers.fetchStatus;
}

long __stdcall ShortId(const wchar_t*, std::uint32_t, std::uint32_t* length, std::uint8_t* buffer) {
  *length = 12;
  return buffer == nullptr ? ERROR_INSUFFICIENT_BUFFER : ERROR_SUCCESS;
}

class PackageQueriesTest : public ::testing::Test {
 protected:
  void SetUp() override { answers = Answers(); }

  AppModelFunctions functions{&FindByFamily, &PathByFullName, &StagedOrigin, nullptr};
};

TEST_F(PackageQueriesTest, FetchesTheFamilyInTwoCallsWithTheDocumentedFilter) {
  const auto query = QueryFamily(functions, L"family");
  EXPECT_THAT(query.fullNames, ElementsAre(L"one", L"two"));
  EXPECT_EQ(query.bufferLength, 8U);
  EXPECT_EQ(query.error, 0U);
  EXPECT_EQ(answers.filters, 0xF0U);
}

TEST_F(PackageQueriesTest, StopsAfterTheFirstCallWhenThereIsNothing) {
  for (const long status : {long{kSuccess}, long{kInvalidParameter}}) {
    answers.sizeStatus = status;
    const auto query = QueryFamily(functions, L"family");
    EXPECT_EQ(query.sizeError, static_cast<std::uint32_t>(status));
    EXPECT_EQ(query.bufferLength, 0U);
    EXPECT_THAT(query.fullNames, IsEmpty());
  }
}

TEST_F(PackageQueriesTest, TellsTheFailureOfTheFetch) {
  answers.fetchStatus = ERROR_INSUFFICIENT_BUFFER;  // a package came in between
  EXPECT_EQ(QueryFamily(functions, L"family").error, kInsufficientBuffer);
  EXPECT_THAT(QueryFamily(functions, L"family").fullNames, IsEmpty());
  EXPECT_EQ(QueryPath(functions, kFullName).error, kInsufficientBuffer);
  EXPECT_EQ(QueryOrigin(functions, kFullName).Error(), kInsufficientBuffer);
}

TEST_F(PackageQueriesTest, FindsThePathAndTheOrigin) {
  const auto path = QueryPath(functions, kFullName);
  EXPECT_EQ(path.path, kPath);
  EXPECT_EQ(path.sizeError, 0U);
  EXPECT_EQ(*QueryOrigin(functions, kFullName), 3);
  answers.sizeStatus = ERROR_NOT_FOUND;
  EXPECT_EQ(QueryPath(functions, kFullName).sizeError, kNotFound);
}

TEST_F(PackageQueriesTest, AnswersForFunctionsThatThisWindowsLacks) {
  const AppModelFunctions none;
  EXPECT_EQ(QueryFamily(none, L"family").sizeError, kProcNotFound);
  EXPECT_EQ(QueryPath(none, kFullName).sizeError, kProcNotFound);
  EXPECT_EQ(QueryOrigin(none, kFullName).Error(), kProcNotFound);
  EXPECT_EQ(QueryVersion(none, kFullName).Error(), kProcNotFound);
}

TEST_F(PackageQueriesTest, RefusesAnIdentityTooShortForAVersion) {
  functions.packageIdFromFullName = &ShortId;
  EXPECT_EQ(QueryVersion(functions, kFullName).Error(), kInvalidData);
}

TEST(RealPackageQueriesTest, PacksTheVersionWithMajorHighest) {
  const auto functions = ResolveAppModel();
  const auto version = QueryVersion(functions, kFullName);
  ASSERT_TRUE(version);
  EXPECT_EQ(*version, 0x0001'0002'0003'0004U);
  EXPECT_FALSE(QueryVersion(functions, L"no full name"));
}

TEST(AccountSidTest, FindsAccountsOfThisMachineOnly) {
  const auto system = QueryAccountSid(L"NT AUTHORITY\\SYSTEM");
  ASSERT_TRUE(system);
  EXPECT_EQ(*system, L"S-1-5-18");
  const auto nobody = QueryAccountSid(L"nowhere\\nobody at all");
  ASSERT_FALSE(nobody);
  EXPECT_EQ(nobody.Error(), kNoneMapped);
}

}  // namespace
}  // namespace Vx::Platform
