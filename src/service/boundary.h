#pragma once

#include <utility>

namespace Vx::Tessel::Server::Services::Orvane {

// The log line of an exception: class, operation and message.
inline constexpr wchar_t kThrew[] = L"%S.%S threw exception %S";

// Logs the current exception as one of the service's `operation`, on behalf of the client `caller`,
// or of no client when null. Call it only inside a catch block.
void LogCurrentException(const char* operation, const wchar_t* caller = nullptr) noexcept;

// The boundary of a slot or a task without a result code: runs `body` and logs what it throws.
// Returns false when it threw.
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
