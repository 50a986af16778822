#include "host/app_service_proxy.h"

#include <chrono>

#include "standins/app_service_exchange.h"

namespace Vx::Tessel::Server::TesselCommunication {

namespace {

// Windows stops an app's background task after 30 seconds, so a later reply cannot arrive.
constexpr std::chrono::seconds kStepLimit{30};

}  // namespace

AppServiceProxySDK::AppServiceProxySDK(std::wstring family, std::wstring service)
    : packageFamilyName(std::move(family)), appServiceName(std::move(service)) {}

std::pair<int, std::wstring> AppServiceProxySDK::send_message(const std::wstring& text) {
  return ExchangeWithAppService(packageFamilyName, appServiceName, text, kStepLimit);
}

// The maker's library drops the connections that did not survive the restart. This one keeps none,
// because every message opens and closes a connection.
void AppServiceProxySDK::SystemRestarted() {}

}  // namespace Vx::Tessel::Server::TesselCommunication
