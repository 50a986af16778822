// The installed service's program. A client can have the module start, as SYSTEM, any program
// signed with a pinned key, with any arguments. To be safe to sign with such a key, this program
// accepts only a service name and exits unless the service manager started it. Its other settings
// are in the registry, where only administrators can write.

#include <memory>

#include <windows.h>

#include <shellapi.h>

#include "hosting/loaded_module.h"
#include "servicehost/service_process.h"

int main() {
  Vx::Hosting::PrepareProgram();
  int count = 0;
  const std::unique_ptr<wchar_t*, decltype(&LocalFree)> arguments(
      CommandLineToArgvW(GetCommandLineW(), &count), &LocalFree);
  if (arguments == nullptr || count != 2) return ERROR_BAD_ARGUMENTS;
  const std::wstring name = arguments.get()[1];
  if (!Vx::Hosting::ServiceHost::IsServiceName(name)) return ERROR_INVALID_NAME;
  return static_cast<int>(Vx::Hosting::ServiceHost::RunUnderManager(name));
}
