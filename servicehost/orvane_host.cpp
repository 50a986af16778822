// The program of the installed service. A client may subscribe any program that is signed with a
// pinned key, with arguments of its own, and the module starts it as SYSTEM. So that this program
// may have such a signature, it takes the name of a service alone and does nothing unless the
// service manager started it. All else stands in the registry, where administrators put it.

#include <memory>

#include <windows.h>

#include <shellapi.h>

#include "servicehost/service_process.h"

int main() {
  int count = 0;
  const std::unique_ptr<wchar_t*, decltype(&LocalFree)> arguments(
      CommandLineToArgvW(GetCommandLineW(), &count), &LocalFree);
  if (arguments == nullptr || count != 2) return ERROR_BAD_ARGUMENTS;
  const std::wstring name = arguments.get()[1];
  if (!Vx::Host::IsServiceName(name)) return ERROR_INVALID_NAME;
  return static_cast<int>(Vx::Host::RunUnderManager(name));
}
