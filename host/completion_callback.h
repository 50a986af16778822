#pragma once

#include <stddef.h>

namespace Vx::Tessel::Server::Services {

// The memory layout of the host's callable, a 64-byte std::function. Its last word points to the
// callable that it holds, which may be stored inside the object, and is null if there is none.
struct CompletionCallback {
  // The vtable of the held callable: copy, move, call, type, delete-this. The argument of
  // delete-this says whether the callable is outside the object and must be freed.
  struct Held {
    void* const* table;
  };

  unsigned char storage[56];
  Held* held;
};

// Destroys a callback that was passed by value, without calling it. It may be null or empty.
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
