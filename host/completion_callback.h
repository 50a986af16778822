#pragma once

#include <stddef.h>

namespace Vx::Tessel::Server::Services {

// The memory layout of the host's callback, a 64-byte std::function. Its last word points to the
// target callable, which may be stored inside this object, or is null if there is none.
struct CompletionCallback {
  // The target callable. Its vtable has five entries: copy, move, call, type and delete-this. The
  // argument of delete-this is true if the callable is stored outside the object and must be freed.
  struct Held {
    void* const* table;
  };

  unsigned char storage[56];
  Held* held;
};

// Destroys a callback that was passed by value. Does not call it. It may be null or empty.
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
