#include "packages/package_error.h"

#include <cstdio>

#include "json/utf8.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

std::string Describe(std::wstring_view call, std::uint32_t code, std::wstring_view details) {
  char hexadecimal[11];
  static_cast<void>(std::snprintf(hexadecimal, sizeof hexadecimal, "0x%x", code));
  std::string text = Json::ToUtf8(call) + " failed with " + hexadecimal;
  if (!details.empty()) text += ": " + Json::ToUtf8(details);
  return text;
}

}  // namespace

PackageError::PackageError(std::wstring_view call, std::uint32_t code, std::wstring_view details)
    : std::runtime_error(Describe(call, code, details)), errorCode(code) {}

PackageError::PackageError(const Platform::WindowsRuntimeError& error)
    : PackageError(error.message(), static_cast<std::uint32_t>(error.code())) {}

}  // namespace Vx::Tessel::Server::Services::Orvane
