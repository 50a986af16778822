#pragma once

#include <utility>

namespace Vx::Tessel::Server::Services::Orvane {

inline constexpr wchar_t kThrew[] = L"%S.%S threw exception %S";

// Logs the current exception as an exception of the service's `operation`, for the client `caller`
// (null for none). Call only inside a catch block.
void LogCurrentException(const char* operation, const wchar_t* caller = nullptr) noexcept;

// Runs `body` for a slot or task without a result code. If it throws, logs that and returns false.
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
