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
constexpr wchar_t kRevertFailed[] =
    L"warning|Problem while reverting the impersonation of a package operation.";

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
  machine.installed[kFamily] = kFullName;
  EXPECT_EQ(UwpPackage().FindPackageFullName(kFamily), kFullName);
  EXPECT_THAT(machine.actedAsUser, ElementsAre(true));
  EXPECT_FALSE(machine.acting);
}

TEST(UwpPackageTest, FindsNothingWithoutAPackage) {
  PackageMachine machine;
  EXPECT_EQ(UwpPackage().FindPackageFullName(kFamily), L"");
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
    const char* name = "";
    Platform::Packages::FamilyQuery query;
    const char* failure = "";
  } kCases[] = {
      {"no size", {87, 0, 0, {}}, "FindPackagesByPackageFamily failed with 0x57"},
      {"not on this Windows", {127, 0, 0, {}}, "FindPackagesByPackageFamily failed with 0x7f"},
      {"no names", {122, 40, 8, {}}, "FindPackagesByPackageFamily failed with 0x8"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    PackageMachine machine;
    machine.query = c.query;
    EXPECT_EQ(FailureOf([] { UwpPackage().FindPackageFullName(kFamily); }), c.failure);
    EXPECT_FALSE(machine.acting) << "an exception left the thread impersonating";
  }
}

TEST(UwpPackageTest, LogsARevertThatFails) {
  PackageMachine machine;
  machine.FailCall(3);  // after token, impersonation and query
  const Tests::LogCapture log;
  EXPECT_EQ(UwpPackage().FindPackageFullName(kFamily), L"");
  EXPECT_THAT(log.Lines(), ElementsAre(kRevertFailed));
}

TEST(UwpPackageTest, ForcesTheRegistrationOfWhatIsStagedButNotRegistered) {
  static const struct {
    const char* name;
    std::vector<std::wstring> staged;
    std::vector<std::wstring> registered;
    bool force;
  } kCases[] = {
      {"staged only", {kFullName}, {}, true},
      {"staged and registered", {kFullName}, {kFullName}, false},
      {"registered in other letters", {kFullName}, {L"SOME.app_1.0.0.0_X64__0123456789abc"}, false},
      {"another version registered", {kFullName}, {L"Some.App_2.0.0.0_x64__0123456789abc"}, true},
      {"another version staged", {L"Some.App_2.0.0.0_x64__0123456789abc"}, {}, false},
      {"a longer name staged", {std::wstring(kFullName) + L"d"}, {}, false},
      {"not on the machine", {}, {}, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    PackageMachine machine;
    machine.staged = c.staged;
    machine.registered = c.registered;
    EXPECT_EQ(UwpPackage().ShouldForceRegistration(kUser, kFullName), c.force);
  }
}

TEST(UwpPackageTest, AsksAboutTheUserAsTheServiceItself) {
  PackageMachine machine;
  machine.staged = {kFullName};
  UwpPackage().ShouldForceRegistration(kUser, kFullName);
  EXPECT_THAT(machine.actedAsUser, Each(false));
  EXPECT_THAT(machine.familiesAsked, ElementsAre(kFamily));
  EXPECT_THAT(machine.askedSids, ElementsAre(L"SID of PC\\ann"));
}

TEST(UwpPackageTest, NamesWhatKeptItFromKnowingTheRegistration) {
  const auto ask = [] { UwpPackage().ShouldForceRegistration(kUser, kFullName); };
  {
    PackageMachine machine;
    machine.refusal = static_cast<winrt::hresult>(0x80070005);
    EXPECT_EQ(FailureOf(ask), "FindForAll failed with 0x80070005");
  }
  PackageMachine machine;
  machine.staged = {kFullName};
  machine.FailCall(0);
  EXPECT_EQ(FailureOf(ask), "LookupAccountName failed with 0x5");
}

TEST(UwpPackageTest, RefusesATextThatIsNoFullName) {
  PackageMachine machine;
  for (const wchar_t* text : {L"", L"Some.App", kFamily, L"a_b_c_d_e_f"}) {
    EXPECT_THROW(UwpPackage().ShouldForceRegistration(kUser, text), std::invalid_argument);
  }
}

TEST(UwpPackageTest, RegistersAsTheConsoleUser) {
  PackageMachine machine;
  UwpPackage().Register(kFullName);
  EXPECT_THAT(machine.registered, ElementsAre(kFullName));
  EXPECT_THAT(machine.actedAsUser, ElementsAre(true));
  EXPECT_FALSE(machine.acting);
}

TEST(UwpPackageTest, RepeatsTheDeploymentsOwnWords) {
  PackageMachine machine;
  machine.registration = {static_cast<std::int32_t>(0x80073D02), L"Caf\u00e9 is in use."};
  EXPECT_EQ(FailureOf([] { UwpPackage().Register(kFullName); }),
            "RegisterPackageByFullNameAsync failed with 0x80073d02: Caf\xC3\xA9 is in use.");
  machine.registration.errorText.clear();
  EXPECT_EQ(FailureOf([] { UwpPackage().Register(kFullName); }),
            "RegisterPackageByFullNameAsync failed with 0x80073d02");
  machine.refusal = static_cast<winrt::hresult>(0x80040154);
  EXPECT_EQ(FailureOf([] { UwpPackage().Register(kFullName); }),
            "RegisterNow failed with 0x80040154");
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
  const char* const failures[] = {
      "WTSQueryUserToken failed with 0x5", "ImpersonateLoggedOnUser failed with 0x5",
      "FindPackagesByPackageFamily failed with 0x5", "GetStagedPackageOrigin failed with 0x5",
      "PackageIdFromFullName failed with 0x5"};
  std::size_t index = 0;
  for (const char* failure : failures) {
    PackageMachine machine;
    machine.installed[kFamily] = kFullName;
    machine.FailCall(index++);
    EXPECT_EQ(FailureOf([] { UwpPackageDataAccess().GetOriginAndVersion(kFamily); }), failure);
    EXPECT_FALSE(machine.acting);
  }
  PackageMachine machine;
  EXPECT_EQ(FailureOf([] { UwpPackageDataAccess().GetOriginAndVersion(kFamily); }),
            "FindPackagesByPackageFamily failed with 0x490");
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
