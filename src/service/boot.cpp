#include "service/boot.h"

#include "events/power_events.h"
#include "host/logging.h"
#include "platform/app_services.h"
#include "platform/machine.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kPowerEventTrace[] = L"%S::PEVX::%S";
constexpr char kPowerEventTask[] =
    "Vx::Tessel::Server::Services::Orvane::OrvaneService::power_event_task";

}  // namespace

void HandlePowerEvent(std::uint32_t eventType) {
  Logging::LogManager::GetLogger()->LogInfo(kPowerEventTrace, kPowerEventTask, "Enter");
  Platform::CurrentMachine().appServices->Open({}, {})->SystemRestarted();
  FulfillPowerSubscriptions(eventType);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
