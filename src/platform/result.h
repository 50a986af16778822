#pragma once

#include <cstdint>
#include <optional>
#include <utility>

namespace Vx::Platform {

// GetLastError() or an HRESULT, depending on the operation. Zero means success.
using ErrorCode = std::uint32_t;

// Converts to a failed Result of any type.
struct Failure {
  explicit Failure(ErrorCode code) noexcept : error(code) {}

  ErrorCode error;
};

// A value, or the error code that Windows returned instead.
template <typename T>
class Result {
 public:
  Result(T value) : content(std::move(value)) {}    // NOLINT(google-explicit-constructor)
  Result(Failure failure) : code(failure.error) {}  // NOLINT(google-explicit-constructor)

  explicit operator bool() const noexcept { return content.has_value(); }
  T& operator*() & { return *content; }
  const T& operator*() const& { return *content; }
  T&& operator*() && { return *std::move(content); }
  T* operator->() { return &*content; }
  const T* operator->() const { return &*content; }

  T ValueOr(T other) && { return std::move(content).value_or(std::move(other)); }

  // Meaningful only after a failure.
  ErrorCode Error() const noexcept { return code; }

 private:
  std::optional<T> content;
  ErrorCode code = 0;
};

}  // namespace Vx::Platform
