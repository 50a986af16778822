// A deliberately broken module for the acceptance kit: it reports success but does not store a
// subscription.
#include <string_view>

namespace Vx::Tessel::Server::Services::Orvane {

class RequestManager;

bool PersistNothing(RequestManager*, std::wstring_view) __asm__("__wrap_" VX_PERSIST_REQUEST);

bool PersistNothing(RequestManager* /*manager*/, std::wstring_view /*request*/) {
  return true;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
