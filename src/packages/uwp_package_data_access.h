#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace Vx::Tessel::Server::Services::Orvane {

// Reads information about the console user's package in a given family. Stateless and thread-safe.
class UwpPackageDataAccess {
 public:
  // Returns the staged-package origin code and the version, with the major part in the high bits.
  // Acts as the console user, which ends any impersonation by the caller. Throws PackageError, with
  // ERROR_NOT_FOUND if the user has no such package.
  std::pair<std::int32_t, std::uint64_t> GetOriginAndVersion(const std::wstring& familyName) const;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
