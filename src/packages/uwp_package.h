#pragma once

#include <string>

namespace Vx::Tessel::Server::Services::Orvane {

// Finds and registers the console user's packaged apps. Stateless and thread-safe. Throws
// PackageError, whose text names the failed call and its code, or std::invalid_argument for a
// malformed name. An operation that acts as the user ends any impersonation by its caller.
class UwpPackage {
 public:
  // Returns the full name of the console user's package of the family, or an empty string.
  std::wstring FindPackageFullName(const std::wstring& familyName) const;

  // Returns whether `fullName` is staged but not registered for `user` ("domain\user"). Runs as the
  // service, because only administrators may query another user's packages.
  bool ShouldForceRegistration(const std::wstring& user, const std::wstring& fullName) const;

  // Registers the staged package for the console user. Blocks for up to two minutes.
  void Register(const std::wstring& fullName) const;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
