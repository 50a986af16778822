#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "platform/packages.h"

namespace Vx::Platform {

// Speaks to the package manager of the Windows Runtime, see Packages. Each call enters and leaves
// the apartment of its thread and throws WindowsRuntimeError when a step is refused, with the
// step's name as message; REGDB_E_CLASSNOTREG where this Windows has no package manager.
std::vector<std::wstring> FamilyPackagesOfMachine(const std::wstring& familyName);
std::vector<std::wstring> FamilyPackagesOfUser(const std::wstring& sid,
                                               const std::wstring& familyName);
PackageRegistration RegisterStagedPackage(const std::wstring& fullName,
                                          std::chrono::milliseconds limit);

}  // namespace Vx::Platform
