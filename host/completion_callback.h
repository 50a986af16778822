#pragma once

#include <stddef.h>

namespace Vx::Tessel::Server::Services {

// What the host's callable looks like in memory: its standard function object, 64 bytes, whose last
// word points at the held callable (null: empty), which may lie inside the object itself.
struct CompletionCallback {
  // The held callable's table: copy, move, call, type, then delete-this, which takes whether the
  // callable lies outside the object and so has to be freed.
  struct Held {
    void* const* table;
  };

  unsigned char storage[56];
  Held* held;
};

// Destroys a callback that was passed by value, without calling it. Null or empty is allowed.
inline void DestroyCallback(CompletionCallback* callback) noexcept {
  constexpr size_t kDeleteThisSlot = 4;
  using DeleteThis = void (*)(CompletionCallback::Held * self, bool outsideTheObject);
  if (callback == nullptr) return;
  CompletionCallback::Held* held = callback->held;
  callback->held = nullptr;
  if (held == nullptr) return;
  const bool outside = static_cast<void*>(held) != static_cast<void*>(callback);
  reinterpret_cast<DeleteThis>(held->table[kDeleteThisSlot])(held, outside);
}

}  // namespace Vx::Tessel::Server::Services
