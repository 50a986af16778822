#include "platform/windows/package_queries.h"

#include <cwchar>
#include <string>

#include "gmock/gmock.h"

#include <windows.h>

namespace Vx::Platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr wchar_t kFullName[] = L"Some.App_1.2.3.4_x64__0123456789abc";
constexpr wchar_t kPath[] = L"C:\\Program Files\\WindowsApps\\Some.App";

// How the functions below answer; the real ones take no context either.
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

  const AppModelFunctions functions{&FindByFamily, &PathByFullName, &StagedOrigin, &ShortId};
};

TEST_F(PackageQueriesTest, FetchesTheFamilyInTwoCallsWithTheDocumentedFilter) {
  const auto query = QueryFamily(functions, L"family");
  EXPECT_THAT(query.fullNames, ElementsAre(L"one", L"two"));
  EXPECT_EQ(query.bufferLength, 8U);
  EXPECT_EQ(query.error, 0U);
  EXPECT_EQ(answers.filters, 0xF0U);
}

TEST_F(PackageQueriesTest, FindsThePathAndTheOrigin) {
  EXPECT_EQ(QueryPath(functions, kFullName).path, kPath);
  EXPECT_EQ(QueryPath(functions, kFullName).sizeError, 0U);
  EXPECT_EQ(*QueryOrigin(functions, kFullName), 3);
}

TEST_F(PackageQueriesTest, StopsAfterTheFirstCallWhenThereIsNothing) {
  for (const std::uint32_t status : {0U, 87U, 1168U}) {  // success, invalid parameter, not found
    answers.sizeStatus = static_cast<long>(status);
    const auto query = QueryFamily(functions, L"family");
    EXPECT_EQ(query.sizeError, status);
    EXPECT_EQ(query.bufferLength, 0U);
    EXPECT_THAT(query.fullNames, IsEmpty());
    EXPECT_EQ(QueryPath(functions, kFullName).sizeError, status);
  }
}

TEST_F(PackageQueriesTest, TellsTheFailureOfTheFetch) {
  constexpr std::uint32_t kGrown = ERROR_INSUFFICIENT_BUFFER;  // a package came in between
  answers.fetchStatus = ERROR_INSUFFICIENT_BUFFER;
  EXPECT_EQ(QueryFamily(functions, L"family").error, kGrown);
  EXPECT_THAT(QueryFamily(functions, L"family").fullNames, IsEmpty());
  EXPECT_EQ(QueryPath(functions, kFullName).error, kGrown);
  EXPECT_EQ(QueryOrigin(functions, kFullName).Error(), kGrown);
}

TEST_F(PackageQueriesTest, AnswersForFunctionsThatThisWindowsLacks) {
  constexpr std::uint32_t kMissing = ERROR_PROC_NOT_FOUND;
  const AppModelFunctions none;
  EXPECT_EQ(QueryFamily(none, L"family").sizeError, kMissing);
  EXPECT_EQ(QueryPath(none, kFullName).sizeError, kMissing);
  EXPECT_EQ(QueryOrigin(none, kFullName).Error(), kMissing);
  EXPECT_EQ(QueryVersion(none, kFullName).Error(), kMissing);
}

TEST_F(PackageQueriesTest, PacksTheVersionWithMajorHighestAndRefusesAShortIdentity) {
  const auto real = ResolveAppModel();
  EXPECT_EQ(*QueryVersion(real, kFullName), 0x0001'0002'0003'0004U);
  EXPECT_FALSE(QueryVersion(real, L"no full name"));
  EXPECT_EQ(QueryVersion(functions, kFullName).Error(), std::uint32_t{ERROR_INVALID_DATA});
}

TEST(AccountSidTest, FindsAccountsOfThisMachineOnly) {
  EXPECT_EQ(*QueryAccountSid(L"NT AUTHORITY\\SYSTEM"), L"S-1-5-18");
  EXPECT_EQ(QueryAccountSid(L"nowhere\\nobody at all").Error(), std::uint32_t{ERROR_NONE_MAPPED});
}

}  // namespace
}  // namespace Vx::Platform
