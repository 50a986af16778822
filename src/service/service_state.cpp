#include "service/service_state.h"

#include <utility>

#include "platform/kernel_objects.h"
#include "platform/machine.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

Platform::UniqueHandle MakeStopEvent() {
  auto event = Platform::CurrentMachine().kernelObjects->MakeManualEvent({});
  return event ? *std::move(event) : nullptr;
}

}  // namespace

ServiceState::ServiceState()
    : stopEvent(Platform::Share(MakeStopEvent())), sessionStopEvent(MakeStopEvent()) {
  logger = Logging::LogManager::GetLogger();
}

}  // namespace Vx::Tessel::Server::Services::Orvane
