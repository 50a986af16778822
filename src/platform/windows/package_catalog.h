#pragma once

#include <memory>

#include "platform/packages.h"

namespace Vx::Platform {

// Opens the catalog of the user that the calling thread acts as. May be called from any apartment,
// but only threads in the multithreaded apartment may use the catalog. Throws WindowsRuntimeError,
// or std::system_error if it cannot create a thread.
std::shared_ptr<PackageCatalog> OpenWindowsPackageCatalog();

}  // namespace Vx::Platform
