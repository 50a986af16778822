#pragma once

#include <utility>

namespace Vx::Tessel::Server::Services::Orvane {

// What is logged of an exception: class, operation, and what it says.
inline constexpr wchar_t kThrew[] = L"%S.%S threw exception %S";

// Logs the exception that is being handled as one of the service's `operation`, on behalf of the
// client `caller`; null: of nobody. Call it only while handling one.
void LogCurrentException(const char* operation, const wchar_t* caller = nullptr) noexcept;

// The end of a slot or a task that has no result to report a failure with: runs `body` and logs
// what it throws. False when it threw.
template <typename Body>
bool Contain(const char* operation, Body&& body) noexcept {
  try {
    std::forward<Body>(body)();
    return true;
  } catch (...) {
    LogCurrentException(operation);
    return false;
  }
}

}  // namespace Vx::Tessel::Server::Services::Orvane
