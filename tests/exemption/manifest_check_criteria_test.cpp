#include "exemption/manifest_check_criteria.h"

#include "exemption/exemption_white_list.h"
#include "support/test.h"

namespace Vx::Tessel::Security {

namespace {

using Operation = MatchingDescriptor::Operation;
using Server::Uwp::UwpInformation;
using Server::Win32::Win32Information;
using UwpCheck = UwpWithNoVxManifestCheckBasedOnMajorAndMinorVersion;
using Win32Check = Win32WithNoVxManifestCheckBasedOnMajorAndMinorVersion;

constexpr const wchar_t* kVeilo = L"7C3B9E40.VxVeilo_r4x2m8kq7tn3b";

std::shared_ptr<UwpInformation> Packaged(const wchar_t* family, std::uint16_t major,
                                         std::uint16_t minor) {
  return std::make_shared<UwpInformation>(L"7C3B9E40.VxVeilo", family, major, minor);
}

TEST(UwpExemption, FollowsFamilyNameAndVersion) {
  static constexpr struct {
    const wchar_t* family;
    std::uint16_t major;
    std::uint16_t minor;
    bool exempt;
  } kCases[] = {
      {kVeilo, 2, 0, true},
      {kVeilo, 1, 9, true},
      {kVeilo, 2, 1, false},
      {kVeilo, 3, 0, false},
      {L"7c3b9e40.vxveilo_r4x2m8kq7tn3b", 1, 0, false},
      {L"7C3B9E40.VxVeilo", 1, 0, false},
  };
  for (const auto& c : kCases) {
    UwpCheck checker(UwpWithNoVxManifestExemptionWhiteList::GetExemption(),
                     Packaged(c.family, c.major, c.minor));
    EXPECT_EQ(checker.IsAnException(), c.exempt) << c.major << '.' << c.minor;
  }
}

TEST(Win32Exemption, FollowsLoweredNameAndVersion) {
  static constexpr struct {
    const wchar_t* executable;
    std::uint16_t major;
    std::uint16_t minor;
    bool exempt;
    const wchar_t* nameAfterwards;
  } kCases[] = {
      {L"HotKeyServiceUWP", 8, 9, true, L"hotkeyserviceuwp"},
      {L"VXHOTKEYNOTIFICATION", 8, 0, true, L"vxhotkeynotification"},
      {L"hotkeyservicedsu", 7, 65535, true, L"hotkeyservicedsu"},
      {L"HotKeyServiceDSU", 8, 10, false, L"hotkeyservicedsu"},
      {L"HotKeyServiceDSU", 9, 0, false, L"hotkeyservicedsu"},
      {L"@AZ[", 1, 0, false, L"@az["},
      {L"hot\u212Aeyserviceuwp", 1, 0, false, L"hot\u212Aeyserviceuwp"},  // with a Kelvin sign
  };
  for (const auto& c : kCases) {
    const auto client = std::make_shared<Win32Information>(c.executable, c.major, c.minor);
    Win32Check checker(Win32WithNoVxManifestExemptionWhiteList::GetExemption(), client);
    EXPECT_EQ(checker.IsAnException(), c.exempt) << testing::PrintToString(c.executable);
    EXPECT_EQ(client->executableName, c.nameAfterwards);
  }
}

TEST(Exemption, IsRefusedWithoutListRowsOrRecord) {
  const auto uwp = Packaged(kVeilo, 1, 0);
  const auto win32 =
      std::make_shared<Win32Information>(L"hotkeyservicedsu", std::uint16_t{1}, std::uint16_t{0});
  const auto uwpRows = UwpWithNoVxManifestExemptionWhiteList::GetExemption();
  const auto win32Rows = Win32WithNoVxManifestExemptionWhiteList::GetExemption();
  EXPECT_FALSE(UwpCheck(nullptr, uwp).IsAnException());
  EXPECT_FALSE(UwpCheck(uwpRows, nullptr).IsAnException());
  EXPECT_FALSE(Win32Check(nullptr, win32).IsAnException());
  EXPECT_FALSE(Win32Check(win32Rows, nullptr).IsAnException());
  uwpRows->clear();
  win32Rows->clear();
  EXPECT_FALSE(UwpCheck(uwpRows, uwp).IsAnException());
  EXPECT_FALSE(Win32Check(win32Rows, win32).IsAnException());
  EXPECT_EQ(Win32WithNoVxManifestExemptionWhiteList::GetExemption()->size(), 3U)
      << "each caller has its own list";
}

TEST(Exemption, LooksAtAllRowsOfOneNameWhateverTheirOperation) {
  const auto list = std::make_shared<std::vector<UwpMatchingDescriptor>>();
  list->emplace_back(*Packaged(kVeilo, 1, 0), Operation::regex);
  list->emplace_back(*Packaged(kVeilo, 5, 0), Operation::numeric_range);
  EXPECT_TRUE(UwpCheck(list, Packaged(kVeilo, 4, 2)).IsAnException());
}

}  // namespace

}  // namespace Vx::Tessel::Security
