#pragma once

#include <string>

namespace Vx::Tessel::Server::Services::Orvane {

// Finds the packaged apps of the user at the console and registers them for that user. Keeps
// nothing between calls; any thread. Every failure is a PackageError, whose text names the call
// that failed and its code.
//
// An operation that acts as the user ends any impersonation that its caller began.
class UwpPackage {
 public:
  // Returns the full name of the family's package that the console user has, or an empty text.
  std::wstring FindPackageFullName(const std::wstring& familyName) const;

  // Returns whether `fullName` is staged on the machine but not registered for `user`
  // ("domain\user"). Runs as the service itself, because only administrators may query another
  // user's packages.
  bool ShouldForceRegistration(const std::wstring& user, const std::wstring& fullName) const;

  // Registers the staged package for the console user. Blocks until the deployment has ended, two
  // minutes at most.
  void Register(const std::wstring& fullName) const;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
