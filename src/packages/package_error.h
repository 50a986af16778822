#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/console_user.h"
#include "platform/windows_runtime_error.h"

namespace Vx::Tessel::Server::Services::Orvane {

// what() is UTF-8: the failed call, its code in hexadecimal, and Windows' error text, if any.
class PackageError : public std::runtime_error {
 public:
  // `code` is a Win32 error or an HRESULT, whichever the call returned.
  PackageError(std::wstring_view call, std::uint32_t code, std::wstring_view details = {});

  // The message of `error` names the call.
  explicit PackageError(const Platform::WindowsRuntimeError& error);

  std::uint32_t Code() const noexcept { return errorCode; }

 private:
  std::uint32_t errorCode;
};

// Logs a warning if the thread could not revert. Throws PackageError for any other step.
void ReportRefusedStep(Platform::ActingStep step, Platform::ErrorCode error);

}  // namespace Vx::Tessel::Server::Services::Orvane
