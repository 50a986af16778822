#include "platform/windows/package_queries.h"

#include <cstddef>
#include <cstring>
#include <vector>

#include <windows.h>

#include <sddl.h>

#include "platform/windows/local_memory.h"
#include "platform/windows/system_library.h"

namespace Vx::Platform {

namespace {

constexpr std::uint32_t kFilterHead = 0x10;
constexpr std::uint32_t kFilterDirect = 0x20;
constexpr std::uint32_t kFilterResource = 0x40;
constexpr std::uint32_t kFilterBundle = 0x80;
constexpr std::uint32_t kFamilyFilter =
    kFilterHead | kFilterDirect | kFilterResource | kFilterBundle;

constexpr std::uint32_t kInformationBasic = 0;

// PACKAGE_ID: two 32-bit members lie before the version, whose 64 bits have major highest.
constexpr std::size_t kVersionOffset = 8;

std::uint32_t Status(long code) {
  return static_cast<std::uint32_t>(code);
}

}  // namespace

AppModelFunctions ResolveAppModel() noexcept {
  using Functions = AppModelFunctions;
  constexpr wchar_t kKernel32[] = L"kernel32.dll";
  return {SystemFunction<Functions::FindByFamily>(kKernel32, "FindPackagesByPackageFamily"),
          SystemFunction<Functions::PathByFullName>(kKernel32, "GetPackagePathByFullName"),
          // This one is not forwarded by kernel32.
          SystemFunction<Functions::StagedOrigin>(L"kernelbase.dll", "GetStagedPackageOrigin"),
          SystemFunction<Functions::IdFromFullName>(kKernel32, "PackageIdFromFullName")};
}

Packages::FamilyQuery QueryFamily(const AppModelFunctions& functions,
                                  const std::wstring& familyName) {
  Packages::FamilyQuery query;
  if (functions.findPackagesByPackageFamily == nullptr) {
    query.sizeError = ERROR_PROC_NOT_FOUND;
    return query;
  }
  std::uint32_t count = 0;
  std::uint32_t length = 0;
  query.sizeError = Status(functions.findPackagesByPackageFamily(
      familyName.c_str(), kFamilyFilter, &count, nullptr, &length, nullptr, nullptr));
  query.bufferLength = length;
  if (length == 0) return query;

  std::vector<wchar_t*> names(count);
  std::vector<wchar_t> buffer(length);
  query.error = Status(functions.findPackagesByPackageFamily(
      familyName.c_str(), kFamilyFilter, &count, names.data(), &length, buffer.data(), nullptr));
  if (query.error != ERROR_SUCCESS) return query;
  for (std::uint32_t i = 0; i < count && i < names.size(); ++i) {
    if (names[i] != nullptr) query.fullNames.emplace_back(names[i]);
  }
  return query;
}

Packages::PathQuery QueryPath(const AppModelFunctions& functions, const std::wstring& fullName) {
  Packages::PathQuery query;
  if (functions.getPackagePathByFullName == nullptr) {
    query.sizeError = ERROR_PROC_NOT_FOUND;
    return query;
  }
  std::uint32_t length = 0;
  query.sizeError = Status(functions.getPackagePathByFullName(fullName.c_str(), &length, nullptr));
  if (query.sizeError != ERROR_INSUFFICIENT_BUFFER || length == 0) return query;

  query.sizeError = ERROR_SUCCESS;
  std::vector<wchar_t> path(length);
  query.error = Status(functions.getPackagePathByFullName(fullName.c_str(), &length, path.data()));
  if (query.error == ERROR_SUCCESS) {
    path.back() = L'\0';
    query.path = path.data();
  }
  return query;
}

Result<std::int32_t> QueryOrigin(const AppModelFunctions& functions, const std::wstring& fullName) {
  if (functions.getStagedPackageOrigin == nullptr) {
    return Result<std::int32_t>::Failure(ERROR_PROC_NOT_FOUND);
  }
  std::int32_t origin = 0;
  const long status = functions.getStagedPackageOrigin(fullName.c_str(), &origin);
  if (status != ERROR_SUCCESS) return Result<std::int32_t>::Failure(Status(status));
  return origin;
}

Result<std::uint64_t> QueryVersion(const AppModelFunctions& functions,
                                   const std::wstring& fullName) {
  using Version = Result<std::uint64_t>;
  if (functions.packageIdFromFullName == nullptr) return Version::Failure(ERROR_PROC_NOT_FOUND);
  std::uint32_t length = 0;  // bytes
  long status =
      functions.packageIdFromFullName(fullName.c_str(), kInformationBasic, &length, nullptr);
  if (status != ERROR_INSUFFICIENT_BUFFER) {
    return Version::Failure(status != ERROR_SUCCESS ? Status(status) : ERROR_INVALID_DATA);
  }
  std::vector<std::uint8_t> buffer(length);
  status =
      functions.packageIdFromFullName(fullName.c_str(), kInformationBasic, &length, buffer.data());
  if (status != ERROR_SUCCESS) return Version::Failure(Status(status));
  std::uint64_t version = 0;
  if (buffer.size() < kVersionOffset + sizeof version) return Version::Failure(ERROR_INVALID_DATA);
  std::memcpy(&version, buffer.data() + kVersionOffset, sizeof version);
  return version;
}

Result<std::wstring> QueryAccountSid(const std::wstring& account) {
  using Text = Result<std::wstring>;
  DWORD sidBytes = 0;
  DWORD domainLength = 0;
  SID_NAME_USE kind = SidTypeUnknown;
  LookupAccountNameW(nullptr, account.c_str(), nullptr, &sidBytes, nullptr, &domainLength, &kind);
  const DWORD sizeError = GetLastError();
  if (sizeError != ERROR_INSUFFICIENT_BUFFER) return Text::Failure(sizeError);

  std::vector<std::byte> sid(sidBytes);
  std::vector<wchar_t> domain(domainLength);
  if (LookupAccountNameW(nullptr, account.c_str(), sid.data(), &sidBytes, domain.data(),
                         &domainLength, &kind) == FALSE) {
    return Text::Failure(GetLastError());
  }
  wchar_t* text = nullptr;
  if (ConvertSidToStringSidW(sid.data(), &text) == FALSE) return Text::Failure(GetLastError());
  const UniqueLocalMemory<wchar_t> owner(text);
  return std::wstring(text);
}

}  // namespace Vx::Platform
