#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace winrt {

using hresult = std::int32_t;

// A Windows Runtime error: an HRESULT and a message. Carries the name that the rest of the world
// knows it by; no projection headers are needed for it. Not a std::exception, as there.
class hresult_error {
 public:
  explicit hresult_error(hresult code) : errorCode(code) {}
  hresult_error(hresult code, std::wstring message)
      : errorCode(code), errorMessage(std::move(message)) {}

  hresult code() const noexcept { return errorCode; }

  // UTF-16, may be empty.
  const std::wstring& message() const noexcept { return errorMessage; }

 private:
  hresult errorCode;
  std::wstring errorMessage;
};

}  // namespace winrt
