#include "host/vx_service.h"

#include <cstdlib>

namespace Vx::Tessel::Server::Services {

void VxService::FreeResponse(void* response) {
  std::free(response);
}

}  // namespace Vx::Tessel::Server::Services
