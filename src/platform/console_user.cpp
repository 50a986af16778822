#include "platform/console_user.h"

#include "platform/machine.h"
#include "platform/sessions.h"
#include "platform/system_services.h"

namespace Vx::Platform {

namespace {

constexpr ErrorCode kCallNotImplemented = 120;  // ERROR_CALL_NOT_IMPLEMENTED
constexpr ErrorCode kNoToken = 1008;            // ERROR_NO_TOKEN

}  // namespace

Result<UniqueHandle> ConsoleUserToken() {
  const Machine& machine = CurrentMachine();
  if (!machine.apiSets->IsPresent(kSessionApiSet)) {
    return Result<UniqueHandle>::Failure(kCallNotImplemented);
  }
  const std::uint32_t session = machine.sessions->ActiveConsoleSession();
  if (session == kNoSession) return Result<UniqueHandle>::Failure(kNoToken);
  return machine.sessions->QueryUserToken(session);
}

}  // namespace Vx::Platform
