#pragma once

namespace Vx::Host {

// While such an object lives, the module that is linked into this program also pins the key of
// simulated signatures. This program's other uses of pinned keys see those of the build alone. One
// object at a time, made and destroyed while no trust check runs.
class PlayedKeys {
 public:
  PlayedKeys();
  PlayedKeys(const PlayedKeys&) = delete;
  PlayedKeys& operator=(const PlayedKeys&) = delete;
  ~PlayedKeys();
};

}  // namespace Vx::Host
