#include "packages/package_error.h"

#include <charconv>
#include <iterator>

#include "host/logging.h"
#include "json/utf8.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kRevertFailed[] =
    L"Problem while reverting the impersonation of a package operation.";

std::string Describe(std::wstring_view call, std::uint32_t code, std::wstring_view details) {
  char digits[8];
  char* const end = std::to_chars(std::begin(digits), std::end(digits), code, 16).ptr;
  std::string text = Json::ToUtf8(call) + " failed with 0x" + std::string(std::begin(digits), end);
  if (!details.empty()) text += ": " + Json::ToUtf8(details);
  return text;
}

}  // namespace

PackageError::PackageError(std::wstring_view call, std::uint32_t code, std::wstring_view details)
    : std::runtime_error(Describe(call, code, details)), errorCode(code) {}

PackageError::PackageError(const Platform::WindowsRuntimeError& error)
    : PackageError(error.message(), static_cast<std::uint32_t>(error.code())) {}

void ReportRefusedStep(Platform::ActingStep step, Platform::ErrorCode error) {
  if (step == Platform::ActingStep::Revert) {
    Logging::LogManager::SetProvider(Logging::kComponentProvider)->LogWarning(kRevertFailed);
    return;
  }
  const bool acting = step == Platform::ActingStep::Impersonation;
  throw PackageError(acting ? L"ImpersonateLoggedOnUser" : L"WTSQueryUserToken", error);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
