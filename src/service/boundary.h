#pragma once

#include <cstddef>
#include <utility>

namespace Vx::Tessel::Server::Services::Orvane {

inline constexpr wchar_t kThrew[] = L"%S.%S threw exception %S";

// Logs the current exception as an exception of the service's `operation`, for the client `caller`
// (null for none). Call only inside a catch block.
void LogCurrentException(const char* operation, const wchar_t* caller = nullptr) noexcept;

// Runs `body` for a slot or task without a result code. If it throws, logs that.
template <typename Body>
void CatchAndLog(const char* operation, Body&& body) noexcept {
  try {
    std::forward<Body>(body)();
  } catch (...) {
    LogCurrentException(operation);
  }
}

// Logs `what` and terminates the process, because the host or a component broke its contract.
[[noreturn]] void FailContract(const wchar_t* what) noexcept;

// Returns the length of a caller's identity (null means empty). Terminates the process if it has
// more than 64 characters, because a truncated one could match another client's.
std::size_t ClientIdLength(const wchar_t* clientId) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
