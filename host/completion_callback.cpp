#include "host/completion_callback.h"

#include <utility>

namespace Vx::Tessel::Server::Services {

namespace {

constexpr std::size_t kDeleteThisSlot = 4;
using DeleteThis = void (*)(CompletionCallback::Held* self, bool outsideTheObject);

}  // namespace

void DestroyCallback(CompletionCallback* callback) noexcept {
  if (callback == nullptr) return;
  CompletionCallback::Held* held = std::exchange(callback->held, nullptr);
  if (held == nullptr) return;
  const bool outside = static_cast<void*>(held) != static_cast<void*>(callback);
  reinterpret_cast<DeleteThis>(held->table[kDeleteThisSlot])(held, outside);
}

}  // namespace Vx::Tessel::Server::Services
