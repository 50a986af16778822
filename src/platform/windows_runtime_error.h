#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace Vx::Platform {

// Not derived from std::exception, so that a boundary can catch the two in either order.
class WindowsRuntimeError {
 public:
  explicit WindowsRuntimeError(std::int32_t code) : errorCode(code) {}
  WindowsRuntimeError(std::int32_t code, std::wstring message)
      : errorCode(code), errorMessage(std::move(message)) {}

  std::int32_t code() const noexcept { return errorCode; }

  // UTF-16; may be empty.
  const std::wstring& message() const noexcept { return errorMessage; }

 private:
  std::int32_t errorCode;
  std::wstring errorMessage;
};

}  // namespace Vx::Platform
