#include "platform/impersonation.h"

#include "platform/machine.h"
#include "platform/sessions.h"

namespace Vx::Platform {

Impersonation::Impersonation(RawHandle token, RevertFailed onRevertFailure)
    : error(CurrentMachine().sessions->Impersonate(token)), revertFailed(onRevertFailure) {
  active = error == 0;
}

Impersonation::~Impersonation() {
  if (active && Revert() != 0 && revertFailed != nullptr) revertFailed();
}

ErrorCode Impersonation::Revert() {
  if (!active) return 0;
  active = false;
  return CurrentMachine().sessions->Revert();
}

}  // namespace Vx::Platform
