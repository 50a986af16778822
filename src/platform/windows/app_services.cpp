#include "platform/app_services.h"

#include "host/app_service_proxy.h"
#include "platform/windows/capabilities.h"

namespace Vx::Platform {

namespace {

class ProxiedAppService final : public AppService {
 public:
  ProxiedAppService(const std::wstring& packageFamilyName, const std::wstring& appServiceName)
      : proxy(packageFamilyName, appServiceName) {}

  std::pair<int, std::wstring> Send(const std::wstring& text) override {
    return proxy.send_message(text);
  }

  void SystemRestarted() override { proxy.SystemRestarted(); }

 private:
  Tessel::Server::TesselCommunication::AppServiceProxySDK proxy;
};

class ProxiedAppServices final : public AppServices {
 public:
  std::unique_ptr<AppService> Open(const std::wstring& packageFamilyName,
                                   const std::wstring& appServiceName) override {
    return std::make_unique<ProxiedAppService>(packageFamilyName, appServiceName);
  }
};

}  // namespace

AppServices& WindowsAppServices() {
  static ProxiedAppServices services;
  return services;
}

}  // namespace Vx::Platform
