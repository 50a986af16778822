#pragma once

#include <memory>
#include <string>
#include <utility>

namespace Vx::Platform {

// A connection to a packaged app's app service, through the host's proxy library.
class AppService {
 public:
  virtual ~AppService() = default;

  // Sends `text` and blocks until the reply arrives. Returns a status (0 is success) and the
  // reply's text. May throw standard exceptions.
  virtual std::pair<int, std::wstring> Send(const std::wstring& text) = 0;

  // Notifies the host's app-service layer that the machine has restarted.
  virtual void SystemRestarted() = 0;
};

class AppServices {
 public:
  virtual ~AppServices() = default;

  virtual std::unique_ptr<AppService> Open(const std::wstring& packageFamilyName,
                                           const std::wstring& appServiceName) = 0;
};

}  // namespace Vx::Platform
