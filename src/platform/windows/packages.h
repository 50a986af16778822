#pragma once

#include <cstdint>
#include <memory>

#include "platform/packages.h"

namespace Vx::Platform {

// Functions found at run time, null if this Windows lacks them. Signatures as in appmodel.h.
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

// Returns the functions that this Windows has. They are exported by libraries that are always
// loaded, but may be forwarded to another library, which Windows then loads.
AppModelFunctions ResolveAppModel() noexcept;

// Returns the capability that calls Windows through `functions`. A query whose function is null
// fails with ERROR_PROC_NOT_FOUND. Each package manager operation initializes the Windows Runtime
// on its thread and uninitializes it afterwards. Its errors name the step. The code is
// REGDB_E_CLASSNOTREG if there is no package manager.
std::unique_ptr<Packages> MakeWindowsPackages(const AppModelFunctions& functions);

// Opens the catalog of the user that the calling thread acts as. May be called from any apartment,
// but only threads in the multithreaded apartment may use the catalog. Throws WindowsRuntimeError,
// or std::system_error if it cannot create a thread.
std::shared_ptr<PackageCatalog> OpenWindowsPackageCatalog();

}  // namespace Vx::Platform
