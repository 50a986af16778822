#pragma once

#include <string>

namespace Vx::Tessel::Server::Services::Orvane {

// Packaged apps as the user at the console sees them, and their registration for that user. Keeps
// nothing between calls; any thread. Every failure is a PackageError, whose text names the call
// that failed and its code.
//
// An operation that acts as the user ends the impersonation that its thread may have been in.
class UwpPackage {
 public:
  // The full name of the family's package that the console user has; empty when there is none.
  std::wstring FindPackageFullName(const std::wstring& familyName) const;

  // Whether `fullName` is staged on the machine but not registered for `user` ("domain\user"). Asks
  // as the service itself, because only administrators may ask about others.
  bool ShouldForceRegistration(const std::wstring& user, const std::wstring& fullName) const;

  // Registers the staged package for the console user. Blocks until the deployment has ended, two
  // minutes at most.
  void Register(const std::wstring& fullName) const;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
