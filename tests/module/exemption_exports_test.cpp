

#include "exemption/client_information.h"
#include "exemption/exemption_white_list.h"
#include "exemption/manifest_check_criteria.h"
#include "exemption/tessel_access_manager.h"
#include "support/test.h"

// Uses the exemption classes with nothing but their headers and the module.

namespace Vx::Tessel::Security {

namespace {

TEST(ExportedExemptionCheck, AnswersAcrossTheModuleBoundary) {
  TesselAccessManager manager;
  manager.SetUwpChecker(std::make_shared<UwpWithNoVxManifestCheckBasedOnMajorAndMinorVersion>(
      UwpWithNoVxManifestExemptionWhiteList::GetExemption(),
      std::make_shared<Server::Uwp::UwpInformation>(L"", L"7C3B9E40.VxVeilo_r4x2m8kq7tn3b",
                                                    std::uint16_t{2}, std::uint16_t{0})));
  manager.SetWin32Checker(std::make_shared<Win32WithNoVxManifestCheckBasedOnMajorAndMinorVersion>(
      Win32WithNoVxManifestExemptionWhiteList::GetExemption(),
      std::make_shared<Server::Win32::Win32Information>(L"Other", std::uint16_t{1},
                                                        std::uint16_t{0})));
  EXPECT_TRUE(manager.IsUwpExempt());
  EXPECT_FALSE(manager.IsWin32Exempt());
}

TEST(ExportedExemptionCheck, ThrowsAcrossTheModuleBoundary) {
  for (const bool win32 : {false, true}) {
    TesselAccessManager manager;
    EXPECT_THAT([&] { win32 ? manager.IsWin32Exempt() : manager.IsUwpExempt(); },
                ThrowsMessage<tessel_access_exception>(
                    std::string("The Behavior was not defined. A call to Set") +
                    (win32 ? "Win32" : "Uwp") + "Checker must be done."));
  }
}

}  // namespace

}  // namespace Vx::Tessel::Security
