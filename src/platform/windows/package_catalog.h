#pragma once

#include <memory>

#include "platform/packages.h"

namespace Vx::Platform {

// Opens the catalog of the user that the calling thread acts as. Throws WindowsRuntimeError.
std::shared_ptr<PackageCatalog> OpenWindowsPackageCatalog();

}  // namespace Vx::Platform
