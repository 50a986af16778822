#pragma once

#include <utility>

namespace Vx::Tessel::Server::Services::Orvane {

inline constexpr wchar_t kThrew[] = L"%S.%S threw exception %S";

// Logs the current exception as one of the service's `operation`, on behalf of the client `caller`,
// or of none if null. Call only inside a catch block.
void LogCurrentException(const char* operation, const wchar_t* caller = nullptr) noexcept;

// The boundary of a slot or a task without a result code: runs `body`, logs an exception and
// returns false if there was one.
template <typename Body>
bool CatchAndLog(const char* operation, Body&& body) noexcept {
  try {
    std::forward<Body>(body)();
    return true;
  } catch (...) {
    LogCurrentException(operation);
    return false;
  }
}

}  // namespace Vx::Tessel::Server::Services::Orvane
