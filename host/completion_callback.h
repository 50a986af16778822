#pragma once

#include <cstddef>

namespace Vx::Tessel::Server::Services {

// What the host's callable looks like in memory: its standard function object, 64 bytes, whose last
// word points at the held callable (null: empty), which may lie inside the object itself.
struct CompletionCallback {
  // The held callable's table: copy, move, call, type, then delete-this, which takes whether the
  // callable lies outside the object and so has to be freed.
  struct Held {
    void* const* table;
  };

  std::byte storage[56];
  Held* held;
};

// Destroys a callback that was passed by value, without calling it. Null or empty is allowed.
void DestroyCallback(CompletionCallback* callback) noexcept;

}  // namespace Vx::Tessel::Server::Services
