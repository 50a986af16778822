#include "service/boundary.h"

#include <exception>

#include "host/logging.h"
#include "platform/runtime/type_name.h"
#include "platform/windows_runtime_error.h"
#include "service/orvane_service.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kThrewRuntimeError[] = L"%S.%S threw hresult_error: Message: %s, Code: %i";
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

}  // namespace Vx::Tessel::Server::Services::Orvane
