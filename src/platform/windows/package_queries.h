#pragma once

#include <cstdint>
#include <string>

#include "platform/packages.h"

namespace Vx::Platform {

// The application-model functions that are looked up at run time; one that this Windows lacks is
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

// Those of this Windows. Does not load anything.
AppModelFunctions ResolveAppModel() noexcept;

// The queries of Packages over the given functions. A missing function answers
// ERROR_PROC_NOT_FOUND.
Packages::FamilyQuery QueryFamily(const AppModelFunctions& functions,
                                  const std::wstring& familyName);
Packages::PathQuery QueryPath(const AppModelFunctions& functions, const std::wstring& fullName);
Result<std::int32_t> QueryOrigin(const AppModelFunctions& functions, const std::wstring& fullName);
Result<std::uint64_t> QueryVersion(const AppModelFunctions& functions,
                                   const std::wstring& fullName);

Result<std::wstring> QueryAccountSid(const std::wstring& account);

}  // namespace Vx::Platform
