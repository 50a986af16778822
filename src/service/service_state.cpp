#include "service/service_state.h"

#include "platform/kernel_objects.h"

namespace Vx::Tessel::Server::Services::Orvane {

ServiceState::ServiceState()
    : stopEvent(Platform::Share(Platform::MakeUnnamedEvent())),
      sessionStopEvent(Platform::MakeUnnamedEvent()) {
  logger = Logging::LogManager::GetLogger();
}

}  // namespace Vx::Tessel::Server::Services::Orvane
