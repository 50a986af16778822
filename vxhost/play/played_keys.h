#pragma once

#include <string>

#include "vxhost/subscriptions/module_pins.h"

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

// While such an object lives, the rules that are linked into this program trust exactly the keys of
// `module`. One object at a time, none beside PlayedKeys, made and destroyed while no trust check
// runs.
class KeysOfModule {
 public:
  // Throws as ModulePins does.
  explicit KeysOfModule(const std::wstring& module);
  KeysOfModule(const KeysOfModule&) = delete;
  KeysOfModule& operator=(const KeysOfModule&) = delete;
  ~KeysOfModule();

 private:
  ModulePins pins;
};

}  // namespace Vx::Host
