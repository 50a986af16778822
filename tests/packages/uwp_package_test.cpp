#include "packages/uwp_package.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "packages/package_machine.h"
#include "packages/uwp_package_data_access.h"
#include "support/log_capture.h"

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using Tests::kFamily;
using Tests::kFullName;
using Tests::PackageMachine;

constexpr wchar_t kUser[] = L"PC\\ann";
// The text of the exception that `operation` throws.
std::string FailureOf(const std::function<void()>& operation) {
  try {
    operation();
    return "(nothing thrown)";
  } catch (const std::exception& error) {
    return error.what();
  }
}

TEST(UwpPackageTest, FindsThePackageAsTheConsoleUser) {
  PackageMachine machine;
  EXPECT_EQ(UwpPackage().FindPackageFullName(kFamily), L"");
  machine.installed[kFamily] = kFullName;
  EXPECT_EQ(UwpPackage().FindPackageFullName(kFamily), kFullName);
  EXPECT_THAT(machine.actedAsUser, Each(true));
  EXPECT_FALSE(machine.acting);

  const Tests::LogCapture log;
  machine.FailCall(3);  // the revert, after token, impersonation and query
  EXPECT_EQ(UwpPackage().FindPackageFullName(kFamily), kFullName);
  EXPECT_THAT(
      log.Lines(),
      ElementsAre(L"warning|Problem while reverting the impersonation of a package operation."));
}

// What keeps any operation from acting as the console user, and which call it names.
constexpr struct {
  const char* failure;
  void (*breakIt)(PackageMachine& machine);
} kNoConsoleUser[] = {
    {"WTSQueryUserToken failed with 0x78",
     [](PackageMachine& machine) { machine.sessionApi = false; }},
    {"WTSQueryUserToken failed with 0x3f0",
     [](PackageMachine& machine) { machine.session = 0xFFFFFFFF; }},
    {"WTSQueryUserToken failed with 0x5", [](PackageMachine& machine) { machine.FailCall(0); }},
    {"ImpersonateLoggedOnUser failed with 0x5",
     [](PackageMachine& machine) { machine.FailCall(1); }},
};

TEST(UwpPackageTest, DoesNothingWithoutTheConsoleUser) {
  const std::function<void()> operations[] = {
      [] { UwpPackage().FindPackageFullName(kFamily); },
      [] { UwpPackage().Register(kFullName); },
      [] { UwpPackageDataAccess().GetOriginAndVersion(kFamily); },
  };
  for (const auto& operation : operations) {
    for (const auto& c : kNoConsoleUser) {
      SCOPED_TRACE(c.failure);
      PackageMachine machine;
      c.breakIt(machine);
      EXPECT_EQ(FailureOf(operation), c.failure);
      EXPECT_THAT(machine.actedAsUser, IsEmpty());
      EXPECT_FALSE(machine.acting);
    }
  }
}

TEST(UwpPackageTest, NamesTheFamilyQueryThatFailed) {
  static const struct {
    Platform::Packages::FamilyQuery query;
    const char* failure = "";
  } kCases[] = {
      {{87, 0, 0, {}}, "FindPackagesByPackageFamily failed with 0x57"},   // no size
      {{122, 40, 8, {}}, "FindPackagesByPackageFamily failed with 0x8"},  // no names
  };
  for (const auto& c : kCases) {
    PackageMachine machine;
    machine.query = c.query;
    EXPECT_EQ(FailureOf([] { UwpPackage().FindPackageFullName(kFamily); }), c.failure);
    EXPECT_FALSE(machine.acting) << "an exception left the thread impersonating";
  }
}

TEST(UwpPackageTest, ForcesTheRegistrationOfWhatIsStagedButNotRegistered) {
  const std::wstring newer = L"Some.App_2.0.0.0_x64__0123456789abc";
  const struct {
    const char* name;
    std::wstring staged;
    std::vector<std::wstring> registered;
    bool force;
  } cases[] = {
      {"staged only", kFullName, {}, true},
      {"registered in other letters", kFullName, {L"SOME.app_1.0.0.0_X64__0123456789abc"}, false},
      {"another version registered", kFullName, {newer}, true},
      {"another version staged", newer, {}, false},
      {"a longer name staged", std::wstring(kFullName) + L"d", {}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PackageMachine machine;
    machine.staged = {c.staged};
    machine.registered = c.registered;
    EXPECT_EQ(UwpPackage().ShouldForceRegistration(kUser, kFullName), c.force);
    EXPECT_THAT(machine.actedAsUser, Each(false));  // only the service itself may ask about others
    EXPECT_THAT(machine.familiesAsked, ElementsAre(kFamily));
    EXPECT_THAT(machine.askedSids, Each(L"SID of PC\\ann"));
  }
}

TEST(UwpPackageTest, NamesWhatKeptItFromKnowingTheRegistration) {
  const auto ask = [] { UwpPackage().ShouldForceRegistration(kUser, kFullName); };
  PackageMachine machine;
  machine.staged = {kFullName};
  machine.FailCall(0);
  EXPECT_EQ(FailureOf(ask), "LookupAccountName failed with 0x5");
  machine.refusal = static_cast<winrt::hresult>(0x80070005);
  EXPECT_EQ(FailureOf(ask), "FindForAll failed with 0x80070005");
}

TEST(UwpPackageTest, RefusesATextThatIsNoFullName) {
  PackageMachine machine;
  for (const wchar_t* text : {L"", L"Some.App", kFamily, L"a_b_c_d_e_f"}) {
    EXPECT_THROW(UwpPackage().ShouldForceRegistration(kUser, text), std::invalid_argument);
  }
}

TEST(UwpPackageTest, RegistersAsTheConsoleUserAndRepeatsTheDeploymentsOwnWords) {
  const auto registering = [] { UwpPackage().Register(kFullName); };
  PackageMachine machine;
  registering();
  EXPECT_THAT(machine.registered, ElementsAre(kFullName));

  machine.registration = {static_cast<std::int32_t>(0x80073D02), L"Caf\u00e9 is in use."};
  EXPECT_EQ(FailureOf(registering),
            "RegisterPackageByFullNameAsync failed with 0x80073d02: Caf\xC3\xA9 is in use.");
  machine.registration.errorText.clear();
  EXPECT_EQ(FailureOf(registering), "RegisterPackageByFullNameAsync failed with 0x80073d02");
  machine.refusal = static_cast<winrt::hresult>(0x80040154);
  EXPECT_EQ(FailureOf(registering), "RegisterNow failed with 0x80040154");
  EXPECT_THAT(machine.actedAsUser, Each(true));
  EXPECT_FALSE(machine.acting) << "an exception left the thread impersonating";
}

TEST(UwpPackageDataAccessTest, ReadsOriginAndVersionAsTheConsoleUser) {
  PackageMachine machine;
  machine.installed[kFamily] = kFullName;
  machine.version = 0x0001'0001'0002'0003;
  EXPECT_THAT(UwpPackageDataAccess().GetOriginAndVersion(kFamily), Pair(3, 0x0001'0001'0002'0003U));
  EXPECT_THAT(machine.actedAsUser, ElementsAre(true));
  EXPECT_FALSE(machine.acting);
}

TEST(UwpPackageDataAccessTest, NamesTheCallThatFailed) {
  const auto read = [] { UwpPackageDataAccess().GetOriginAndVersion(kFamily); };
  PackageMachine machine;
  EXPECT_EQ(FailureOf(read), "FindPackagesByPackageFamily failed with 0x490");
  machine.installed[kFamily] = kFullName;
  std::size_t index = 0;
  for (const char* call :
       {"WTSQueryUserToken", "ImpersonateLoggedOnUser", "FindPackagesByPackageFamily",
        "GetStagedPackageOrigin", "PackageIdFromFullName"}) {
    machine.FailCall(index++);
    EXPECT_EQ(FailureOf(read), std::string(call) + " failed with 0x5");
    EXPECT_FALSE(machine.acting);
  }
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
