#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "companion/registration.h"

// Interfaces for the checks and actions of a launch decision, so that each can be replaced. In
// every class, the virtual destructor comes first, and the order of the operations is fixed. Use
// from one thread at a time.
namespace Vx::Tessel::Server::Services::Orvane::Base {

class SoftwareCheckBehavior {
 public:
  virtual ~SoftwareCheckBehavior() = default;

  virtual bool IsWin32Installed() const = 0;
  virtual bool IsUwpInstalled() const = 0;
  virtual bool IsInstalled() const = 0;

  // Returns whether the machine shipped with the files that install the software.
  virtual bool IsPreloaded() const = 0;
};

class RegistrationCheckBehavior {
 public:
  virtual ~RegistrationCheckBehavior() = default;

  virtual RegistrationHelper::RegistrationState GetState() const = 0;
};

class ModeCheckBehavior {
 public:
  virtual ~ModeCheckBehavior() = default;

  // Returns whether Windows was in S mode at the first start and no longer is.
  virtual bool HasBeenInSMode() = 0;

  virtual bool IsInSMode() const = 0;
};

// Starts one app for the console user. Returns true if it was started.
class ApplicationLaunchBehavior {
 public:
  virtual ~ApplicationLaunchBehavior() = default;

  virtual bool Run(const std::wstring& parameter) const = 0;
  virtual bool Run() const = 0;
};

// Reads and writes the mark that records that a reason for a launch has been used.
class ApplicationLaunchCriteriaDataAccess {
 public:
  virtual ~ApplicationLaunchCriteriaDataAccess() = default;

  virtual bool SaveSkipState(bool skip) const = 0;

  virtual bool ShouldBeSkipped() const = 0;
};

class UwpBuildInfoDataAccess {
 public:
  virtual ~UwpBuildInfoDataAccess() = default;

  // Returns the staged-package origin code and the version, with the major part in the high bits.
  virtual std::pair<std::int32_t, std::uint64_t> GetOriginAndVersion() const = 0;
};

}  // namespace Vx::Tessel::Server::Services::Orvane::Base
