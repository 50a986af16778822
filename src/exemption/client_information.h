#pragma once

// The layout of the exported exemption classes depends on this compiler and its standard library.
#ifdef _MSC_VER
#error "Use the table of CreateClientExemption, host/client_exemption.h, with this compiler."
#endif

#include <cstdint>
#include <string>

namespace Vx::Tessel::Server {

enum class ClientType : std::uint32_t { Packaged = 0, Desktop = 1 };

struct IClientInformation {
  IClientInformation() = default;
  explicit IClientInformation(ClientType type);
  IClientInformation(ClientType type, std::wstring text);

  ClientType clientType = ClientType::Packaged;
  std::wstring clientText;
};

namespace Uwp {

struct UwpInformation : IClientInformation {
  UwpInformation(std::wstring name, std::wstring familyName, std::uint16_t major,
                 std::uint16_t minor);

  std::wstring packageName;
  std::wstring packageFamilyName;
  std::uint16_t majorVersion;
  std::uint16_t minorVersion;
};

}  // namespace Uwp

namespace Win32 {

struct Win32Information : IClientInformation {
  Win32Information(std::wstring name, std::uint16_t major, std::uint16_t minor);
  Win32Information(std::wstring name, std::wstring second, std::uint16_t major,
                   std::uint16_t minor);

  std::wstring executableName;
  std::wstring secondText;
  std::uint16_t majorVersion;
  std::uint16_t minorVersion;
};

}  // namespace Win32

}  // namespace Vx::Tessel::Server
