#include "exemption/exemption_white_list.h"

namespace Vx::Tessel::Security {

namespace {

using Operation = MatchingDescriptor::Operation;
using Server::Uwp::UwpInformation;
using Server::Win32::Win32Information;

constexpr const wchar_t* kDesktopClients[] = {L"hotkeyserviceuwp", L"vxhotkeynotification",
                                              L"hotkeyservicedsu"};

}  // namespace

std::shared_ptr<std::vector<UwpMatchingDescriptor>>
UwpWithNoVxManifestExemptionWhiteList::GetExemption() {
  auto list = std::make_shared<std::vector<UwpMatchingDescriptor>>();
  list->emplace_back(UwpInformation(L"7C3B9E40.VxVeilo", L"7C3B9E40.VxVeilo_r4x2m8kq7tn3b", 2, 0),
                     Operation::none);
  return list;
}

std::shared_ptr<std::vector<Win32MatchingDescriptor>>
Win32WithNoVxManifestExemptionWhiteList::GetExemption() {
  auto list = std::make_shared<std::vector<Win32MatchingDescriptor>>();
  for (const wchar_t* name : kDesktopClients) {
    list->emplace_back(Win32Information(name, 8, 9), Operation::none);
  }
  return list;
}

}  // namespace Vx::Tessel::Security
