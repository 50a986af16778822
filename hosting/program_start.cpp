#include "hosting/program_start.h"

#include <windows.h>

#include "platform/runtime/fail_fast.h"

namespace Vx::Hosting {

void PrepareProgram() noexcept {
  Platform::FailFastOnTerminate();
  // Otherwise, a file next to the program could replace one that an imported library loads later.
  // https://learn.microsoft.com/windows/win32/api/libloaderapi/nf-libloaderapi-setdefaultdlldirectories
  if (SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32) == FALSE) Platform::FailFast();
}

}  // namespace Vx::Hosting
