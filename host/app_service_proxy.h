#pragma once

#include <string>
#include <utility>

// Contract of the host's app-service proxy library. The stand-in of this folder implements it over
// the Windows Runtime's app-service connection; a build option links the maker's own library.

namespace Vx::Tessel::Server::TesselCommunication {

// One conversation with the app service of a packaged app. Used by one thread at a time.
class AppServiceProxySDK {
 public:
  AppServiceProxySDK(std::wstring packageFamilyName, std::wstring appServiceName);

  // Opens the connection, sends `text` and waits for the reply. Answers a status, 0 for success,
  // and the text of the reply. Blocks for as long as the app takes, within the library's own limit.
  std::pair<int, std::wstring> send_message(const std::wstring& text);

  // Tells the host's app-service layer that the machine came up again.
  void SystemRestarted();

 private:
  std::wstring packageFamilyName;
  std::wstring appServiceName;
};

}  // namespace Vx::Tessel::Server::TesselCommunication
