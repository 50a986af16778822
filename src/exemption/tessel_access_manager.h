#pragma once

#include <memory>
#include <stdexcept>

#include "exemption/manifest_check_criteria.h"

namespace Vx::Tessel::Security {

// Thrown if no checker is set. Copying it does not throw, as with any standard exception.
class tessel_access_exception : public std::runtime_error {
 public:
  explicit tessel_access_exception(const char* message);
};

// Not synchronized: set the checkers before the first call.
class TesselAccessManager {
 public:
  void SetUwpChecker(std::shared_ptr<IClientWithNoVxManifestCheckCriteria> checker);
  void SetWin32Checker(std::shared_ptr<IClientWithNoVxManifestCheckCriteria> checker);

  // Both throw tessel_access_exception if the checker for that kind of client is not set.
  bool IsUwpExempt();
  bool IsWin32Exempt();

 private:
  std::shared_ptr<IClientWithNoVxManifestCheckCriteria> uwpChecker;
  std::shared_ptr<IClientWithNoVxManifestCheckCriteria> win32Checker;
};

}  // namespace Vx::Tessel::Security
