#pragma once

#include <cstdint>
#include <memory>

#include "platform/packages.h"

namespace Vx::Platform {

// Application-model functions that are looked up at run time. A function that this Windows lacks is
// null. The signatures are those of appmodel.h.
struct AppModelFunctions {
  using FindByFamily = long __stdcall(const wchar_t* family, std::uint32_t filters,
                                      std::uint32_t* count, wchar_t** fullNames,
                                      std::uint32_t* bufferLength, wchar_t* buffer,
                                      std::uint32_t* properties);
  using PathByFullName = long __stdcall(const wchar_t* fullName, std::uint32_t* length,
                                        wchar_t* path);
  using StagedOrigin = long __stdcall(const wchar_t* fullName, std::int32_t* origin);
  using IdFromFullName = long __stdcall(const wchar_t* fullName, std::uint32_t flags,
                                        std::uint32_t* bufferLength, std::uint8_t* buffer);

  FindByFamily* findPackagesByPackageFamily = nullptr;
  PathByFullName* getPackagePathByFullName = nullptr;
  StagedOrigin* getStagedPackageOrigin = nullptr;
  IdFromFullName* packageIdFromFullName = nullptr;
};

// Returns the functions of this Windows. Does not load anything.
AppModelFunctions ResolveAppModel() noexcept;

// Returns the packages of this Windows, with the queries over `functions`. A query whose function
// is null fails with ERROR_PROC_NOT_FOUND. The operations of the package manager enter and leave
// the apartment of their thread. Their errors have the name of the step as message, and the code
// REGDB_E_CLASSNOTREG where this Windows has no package manager.
std::unique_ptr<Packages> MakeWindowsPackages(const AppModelFunctions& functions);

}  // namespace Vx::Platform
