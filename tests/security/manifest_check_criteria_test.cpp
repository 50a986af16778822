#include "security/manifest_check_criteria.h"

#include <gtest/gtest.h>

#include "security/exemption_white_list.h"
#include "security/tessel_access_manager.h"

namespace Vx::Tessel::Security {

namespace {

using Operation = MatchingDescriptor::Operation;
using Server::Uwp::UwpInformation;
using Server::Win32::Win32Information;

constexpr const wchar_t* kVeilo = L"7C3B9E40.VxVeilo_r4x2m8kq7tn3b";

template <typename Row>
using List = std::shared_ptr<std::vector<Row>>;

TEST(UwpExemption, FollowsFamilyNameAndVersion) {
  static constexpr struct {
    const char* name;
    const wchar_t* family;
    std::uint16_t major;
    std::uint16_t minor;
    bool exempt;
  } kCases[] = {
      {"listed version", kVeilo, 2, 0, true},
      {"older, with a larger minor number", kVeilo, 1, 9, true},
      {"oldest", kVeilo, 0, 0, true},
      {"newer minor", kVeilo, 2, 1, false},
      {"newer major, with a smaller minor number", kVeilo, 3, 0, false},
      {"largest", kVeilo, 65535, 65535, false},
      {"other letter case", L"7c3b9e40.vxveilo_r4x2m8kq7tn3b", 1, 0, false},
      {"a part of the name", L"7C3B9E40.VxVeilo", 1, 0, false},
      {"a longer name", L"7C3B9E40.VxVeilo_r4x2m8kq7tn3bx", 1, 0, false},
      {"no name", L"", 0, 0, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    UwpWithNoVxManifestCheckBasedOnMajorAndMinorVersion checker(
        UwpWithNoVxManifestExemptionWhiteList::GetExemption(),
        std::make_shared<UwpInformation>(L"7C3B9E40.VxVeilo", c.family, c.major, c.minor));
    EXPECT_EQ(checker.IsAnException(), c.exempt);
  }
}

TEST(Win32Exemption, FollowsLoweredNameAndVersion) {
  static constexpr struct {
    const char* name;
    const wchar_t* executable;
    std::uint16_t major;
    std::uint16_t minor;
    bool exempt;
    const wchar_t* nameAfterwards;
  } kCases[] = {
      {"mixed case", L"HotKeyServiceUWP", 8, 9, true, L"hotkeyserviceuwp"},
      {"second row", L"VXHOTKEYNOTIFICATION", 8, 0, true, L"vxhotkeynotification"},
      {"third row, older", L"hotkeyservicedsu", 7, 65535, true, L"hotkeyservicedsu"},
      {"newer minor", L"HotKeyServiceDSU", 8, 10, false, L"hotkeyservicedsu"},
      {"newer major", L"HotKeyServiceDSU", 9, 0, false, L"hotkeyservicedsu"},
      {"unlisted", L"Other", 1, 0, false, L"other"},
      {"a Kelvin sign for a K", L"hot\u212Aeyserviceuwp", 1, 0, false, L"hot\u212Aeyserviceuwp"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const auto client = std::make_shared<Win32Information>(c.executable, c.major, c.minor);
    Win32WithNoVxManifestCheckBasedOnMajorAndMinorVersion checker(
        Win32WithNoVxManifestExemptionWhiteList::GetExemption(), client);
    EXPECT_EQ(checker.IsAnException(), c.exempt);
    EXPECT_EQ(client->executableName, c.nameAfterwards);
  }
}

TEST(Exemption, IsRefusedWithoutListRowsOrRecord) {
  const auto uwp =
      std::make_shared<UwpInformation>(L"", kVeilo, std::uint16_t{1}, std::uint16_t{0});
  const auto win32 = std::make_shared<Win32Information>(L"Any", std::uint16_t{1}, std::uint16_t{0});
  using Uwp = UwpWithNoVxManifestCheckBasedOnMajorAndMinorVersion;
  using Win32 = Win32WithNoVxManifestCheckBasedOnMajorAndMinorVersion;
  const auto noUwpRows = std::make_shared<std::vector<UwpMatchingDescriptor>>();
  const auto noWin32Rows = std::make_shared<std::vector<Win32MatchingDescriptor>>();
  EXPECT_FALSE(Uwp(nullptr, uwp).IsAnException());
  EXPECT_FALSE(Uwp(noUwpRows, uwp).IsAnException());
  EXPECT_FALSE(Uwp(UwpWithNoVxManifestExemptionWhiteList::GetExemption(), nullptr).IsAnException());
  EXPECT_FALSE(Win32(nullptr, win32).IsAnException());
  EXPECT_FALSE(Win32(noWin32Rows, win32).IsAnException());
  EXPECT_FALSE(
      Win32(Win32WithNoVxManifestExemptionWhiteList::GetExemption(), nullptr).IsAnException());
}

TEST(Exemption, LooksAtAllRowsOfOneNameWhateverTheirOperation) {
  const auto list = std::make_shared<std::vector<UwpMatchingDescriptor>>();
  list->emplace_back(UwpInformation(L"", kVeilo, 1, 0), Operation::regex);
  list->emplace_back(UwpInformation(L"", kVeilo, 5, 0), Operation::numeric_range);
  const auto client =
      std::make_shared<UwpInformation>(L"", kVeilo, std::uint16_t{4}, std::uint16_t{2});
  EXPECT_TRUE(UwpWithNoVxManifestCheckBasedOnMajorAndMinorVersion(list, client).IsAnException());
}

TEST(ExemptionWhiteList, GivesEachCallerAListOfItsOwn) {
  const auto changed = Win32WithNoVxManifestExemptionWhiteList::GetExemption();
  changed->clear();
  EXPECT_EQ(Win32WithNoVxManifestExemptionWhiteList::GetExemption()->size(), 3U);
}

TEST(TesselAccessManager, ThrowsUntilACheckerOfTheKindIsSet) {
  TesselAccessManager manager;
  const auto message = [](auto ask) -> std::string {
    try {
      ask();
    } catch (const tessel_access_exception& error) {
      return error.what();
    }
    return "nothing thrown";
  };
  EXPECT_EQ(message([&] { manager.IsUwpExempt(); }),
            "The Behavior was not defined. A call to SetUwpChecker must be done.");
  EXPECT_EQ(message([&] { manager.IsWin32Exempt(); }),
            "The Behavior was not defined. A call to SetWin32Checker must be done.");

  manager.SetUwpChecker(std::make_shared<UwpWithNoVxManifestCheckBasedOnMajorAndMinorVersion>(
      UwpWithNoVxManifestExemptionWhiteList::GetExemption(),
      std::make_shared<UwpInformation>(L"", kVeilo, std::uint16_t{2}, std::uint16_t{0})));
  EXPECT_TRUE(manager.IsUwpExempt());
  EXPECT_THROW(manager.IsWin32Exempt(), tessel_access_exception);
}

}  // namespace

}  // namespace Vx::Tessel::Security
