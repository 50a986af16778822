#include "host/app_service_proxy.h"

#include <chrono>
#include <optional>

#include "host/logging.h"
#include "platform/console_user.h"
#include "standins/app_service_exchange.h"

namespace Vx::Tessel::Server::TesselCommunication {

namespace {

// Windows stops an app's background task after 30 seconds, so no reply can come later.
constexpr std::chrono::seconds kStepLimit{30};

constexpr wchar_t kNotDelivered[] =
    L"AppServiceProxySDK - no message to app service %s of %s, sent as %s: status 0x%x";
constexpr wchar_t kAsUser[] = L"the console user";
constexpr wchar_t kAsService[] = L"the service";
constexpr wchar_t kRevertFailed[] =
    L"AppServiceProxySDK - reverting the impersonation failed, error %u";

const Logging::TraceLogger& Log() {
  return *Logging::LogManager::SetProvider(Logging::kComponentProvider);
}

// Other steps are not errors: if no user is at the console, the message is sent as the service.
void ReportRevert(Platform::ActingStep step, Platform::ErrorCode error) {
  if (step == Platform::ActingStep::Revert) Log().LogWarning(kRevertFailed, error);
}

}  // namespace

AppServiceProxySDK::AppServiceProxySDK(std::wstring family, std::wstring service)
    : packageFamilyName(std::move(family)), appServiceName(std::move(service)) {}

// An app service belongs to a user, and Windows refuses connections from the service's session.
std::pair<int, std::wstring> AppServiceProxySDK::send_message(const std::wstring& text) {
  const auto exchange = [&] {
    return std::optional(
        ExchangeWithAppService(packageFamilyName, appServiceName, text, kStepLimit));
  };
  const Platform::UniqueHandle user = Platform::ConsoleUserToken(&ReportRevert);
  auto reply = Platform::AsUser(user.get(), &ReportRevert, exchange);
  const wchar_t* sender = reply ? kAsUser : kAsService;
  if (!reply) reply = exchange();
  if (reply->first != 0) {
    Log().LogWarning(kNotDelivered, appServiceName.c_str(), packageFamilyName.c_str(), sender,
                     static_cast<unsigned>(reply->first));
  }
  return *std::move(reply);
}

// The maker's library drops connections that did not survive the restart. This one keeps none.
void AppServiceProxySDK::SystemRestarted() {}

}  // namespace Vx::Tessel::Server::TesselCommunication
