#include "exemption/client_information.h"

#include <utility>

namespace Vx::Tessel::Server {

IClientInformation::IClientInformation(ClientType type) : clientType(type) {}

IClientInformation::IClientInformation(ClientType type, std::wstring text)
    : clientType(type), clientText(std::move(text)) {}

namespace Uwp {

UwpInformation::UwpInformation(std::wstring name, std::wstring familyName, std::uint16_t major,
                               std::uint16_t minor)
    : IClientInformation(ClientType::Packaged),
      packageName(std::move(name)),
      packageFamilyName(std::move(familyName)),
      majorVersion(major),
      minorVersion(minor) {}

}  // namespace Uwp

namespace Win32 {

Win32Information::Win32Information(std::wstring name, std::uint16_t major, std::uint16_t minor)
    : Win32Information(std::move(name), std::wstring(), major, minor) {}

Win32Information::Win32Information(std::wstring name, std::wstring second, std::uint16_t major,
                                   std::uint16_t minor)
    : IClientInformation(ClientType::Desktop),
      executableName(std::move(name)),
      secondText(std::move(second)),
      majorVersion(major),
      minorVersion(minor) {}

}  // namespace Win32

}  // namespace Vx::Tessel::Server
