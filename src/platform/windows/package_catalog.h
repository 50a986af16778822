#pragma once

#include <memory>

#include "platform/packages.h"

namespace Vx::Platform {

// Opens the catalog of the user that the calling thread acts as, for threads of the multithreaded
// apartment, from any apartment. Throws WindowsRuntimeError, or std::system_error if it cannot
// start a thread that it needs.
std::shared_ptr<PackageCatalog> OpenWindowsPackageCatalog();

}  // namespace Vx::Platform
