#include "service/boundary.h"

#include <cwchar>
#include <exception>

#include "host/logging.h"
#include "platform/runtime/fail_fast.h"
#include "platform/runtime/type_name.h"
#include "platform/windows_runtime_error.h"
#include "service/orvane_service.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kThrewRuntimeError[] = L"%S.%S threw hresult_error: Message: %s, Code: %i";
constexpr wchar_t kContractBroken[] = L"OrvaneService: contract broken, ending the process: %s";
constexpr std::size_t kMaxClientIdLength = 64;  // characters without the terminator
constexpr wchar_t kClientIdTooLong[] = L"the caller identity has more than 64 characters";
constexpr char kUnknown[] = "of an unknown kind";

constexpr const char* kClass = Platform::TypeName<OrvaneService>();

}  // namespace

void LogCurrentException(const char* operation, const wchar_t* caller) noexcept {
  const auto logger = Logging::LogManager::GetLogger()->For(caller);
  try {
    throw;
  } catch (const Platform::WindowsRuntimeError& error) {
    logger.LogError(kThrewRuntimeError, kClass, operation, error.message().c_str(), error.code());
  } catch (const std::exception& error) {
    logger.LogError(kThrew, kClass, operation, error.what());
  } catch (...) {
    logger.LogError(kThrew, kClass, operation, kUnknown);
  }
}

void FailContract(const wchar_t* what) noexcept {
  Logging::LogManager::GetLogger()->LogError(kContractBroken, what);
  Platform::FailFast();
}

std::size_t ClientIdLength(const wchar_t* clientId) noexcept {
  if (clientId == nullptr) return 0;
  const std::size_t length = wcsnlen(clientId, kMaxClientIdLength + 1);
  if (length > kMaxClientIdLength) FailContract(kClientIdTooLong);
  return length;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
