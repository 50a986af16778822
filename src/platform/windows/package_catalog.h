#pragma once

#include <memory>

#include "platform/packages.h"

namespace Vx::Platform {

// Opens the catalog of the user that the calling thread acts as, for use by threads of the
// multithreaded apartment, whatever the apartment of the calling thread. Throws
// WindowsRuntimeError, and std::system_error when it needs a thread and cannot start one.
std::shared_ptr<PackageCatalog> OpenWindowsPackageCatalog();

}  // namespace Vx::Platform
