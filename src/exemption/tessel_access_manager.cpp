#include "exemption/tessel_access_manager.h"

#include <utility>

namespace Vx::Tessel::Security {

namespace {

constexpr char kNoUwpChecker[] =
    "The Behavior was not defined. A call to SetUwpChecker must be done.";
constexpr char kNoWin32Checker[] =
    "The Behavior was not defined. A call to SetWin32Checker must be done.";

}  // namespace

tessel_access_exception::tessel_access_exception(const char* message)
    : std::runtime_error(message) {}

void TesselAccessManager::SetUwpChecker(
    std::shared_ptr<IClientWithNoVxManifestCheckCriteria> checker) {
  uwpChecker = std::move(checker);
}

void TesselAccessManager::SetWin32Checker(
    std::shared_ptr<IClientWithNoVxManifestCheckCriteria> checker) {
  win32Checker = std::move(checker);
}

bool TesselAccessManager::IsUwpExempt() {
  if (!uwpChecker) throw tessel_access_exception(kNoUwpChecker);
  return uwpChecker->IsAnException();
}

bool TesselAccessManager::IsWin32Exempt() {
  if (!win32Checker) throw tessel_access_exception(kNoWin32Checker);
  return win32Checker->IsAnException();
}

}  // namespace Vx::Tessel::Security
