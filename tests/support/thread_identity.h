#pragma once

#include "platform/unique_handle.h"

#include <windows.h>

namespace Vx::Tests {

// Returns the token that the calling thread impersonates with, or null.
inline Platform::UniqueHandle ThreadToken() {
  HANDLE raw = nullptr;
  OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &raw);
  return Platform::UniqueHandle(raw);
}

inline bool ThreadActsAsAnother() {
  return ThreadToken() != nullptr;
}

}  // namespace Vx::Tests
