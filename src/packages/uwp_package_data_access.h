#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace Vx::Tessel::Server::Services::Orvane {

// Facts about the package of a family that the user at the console has. Keeps nothing between
// calls; any thread.
class UwpPackageDataAccess {
 public:
  // The staged-package origin code of Windows, and the version as four 16-bit parts with major
  // highest. Acts as the console user, and so ends the impersonation that its thread may have been
  // in. Throws PackageError, also (with ERROR_NOT_FOUND) when the user has no such package.
  std::pair<std::int32_t, std::uint64_t> GetOriginAndVersion(const std::wstring& familyName) const;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
