#pragma once

#include <string>
#include <utility>

// The contract of the host's app-service proxy library. standins/ implements it with the Windows
// Runtime. A build option links the maker's own library instead.

namespace Vx::Tessel::Server::TesselCommunication {

// A connection to a packaged app's app service. Use from one thread at a time.
class AppServiceProxySDK {
 public:
  AppServiceProxySDK(std::wstring packageFamilyName, std::wstring appServiceName);

  // Opens the connection, sends `text`, and blocks until the reply arrives or the library's own
  // time limit expires. Returns a status (0 for success) and the reply's text.
  std::pair<int, std::wstring> send_message(const std::wstring& text);

  // Notifies the host's app-service layer that the machine has restarted.
  void SystemRestarted();

 private:
  std::wstring packageFamilyName;
  std::wstring appServiceName;
};

}  // namespace Vx::Tessel::Server::TesselCommunication
