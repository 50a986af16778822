#pragma once

#include <string>
#include <utility>

// Contract of the host's app-service proxy library. standins/ implements it over the Windows
// Runtime's app-service connection. A build option links the maker's own library instead.

namespace Vx::Tessel::Server::TesselCommunication {

// A conversation with the app service of a packaged app. Used by one thread at a time.
class AppServiceProxySDK {
 public:
  AppServiceProxySDK(std::wstring packageFamilyName, std::wstring appServiceName);

  // Opens the connection, sends `text` and waits for the reply. Returns a status, 0 for success,
  // and the text of the reply. Blocks until the app replies or the library's own limit has passed.
  std::pair<int, std::wstring> send_message(const std::wstring& text);

  // Notifies the host's app-service layer that the machine has restarted.
  void SystemRestarted();

 private:
  std::wstring packageFamilyName;
  std::wstring appServiceName;
};

}  // namespace Vx::Tessel::Server::TesselCommunication
