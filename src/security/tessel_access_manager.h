#pragma once

#include <memory>
#include <stdexcept>

#include "security/manifest_check_criteria.h"

namespace Vx::Tessel::Security {

// A question that cannot be answered yet. Copying it cannot fail, as its base promises.
class tessel_access_exception : public std::runtime_error {
 public:
  explicit tessel_access_exception(const char* message);
};

// Asks the checker of each kind of client. Not synchronised: set the checkers first, then ask.
class TesselAccessManager {
 public:
  void SetUwpChecker(std::shared_ptr<IClientWithNoVxManifestCheckCriteria> checker);
  void SetWin32Checker(std::shared_ptr<IClientWithNoVxManifestCheckCriteria> checker);

  // Both throw tessel_access_exception while no checker of the kind is set.
  bool IsUwpExempt();
  bool IsWin32Exempt();

 private:
  std::shared_ptr<IClientWithNoVxManifestCheckCriteria> uwpChecker;
  std::shared_ptr<IClientWithNoVxManifestCheckCriteria> win32Checker;
};

}  // namespace Vx::Tessel::Security
