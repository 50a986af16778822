#include "security/trusted_program.h"

#include <optional>
#include <utility>

#include "platform/files.h"
#include "platform/machine.h"
#include "security/authenticode_facade.h"
#include "security/authenticode_helper.h"

namespace Vx::Tessel::Security {

namespace {

// Returns what to start for `path`, judged while `lock` holds the file. Empty when that is not
// trusted.
std::optional<std::wstring> JudgeLocked(const std::wstring& path, Platform::RawHandle lock) {
  VxAuthenticodeFacade facade;
  if (!facade.IsFileTrustedRestricted(path.c_str())) return std::nullopt;
  auto place = Platform::CurrentMachine().files->FinalPathOf(lock);
  if (!place) return std::nullopt;
  // Exactly: where a folder distinguishes case, another spelling is another object.
  if (*place == path) return path;
  if (!facade.IsFileTrustedRestricted(place->c_str())) return std::nullopt;
  return *std::move(place);
}

}  // namespace

TrustedProgram::TrustedProgram(std::wstring judged, Platform::UniqueHandle held)
    : path(std::move(judged)), lock(std::move(held)) {}

std::unique_ptr<const TrustedProgram> TrustedProgram::Check(const std::wstring& path) {
  const VxAuthenticodeHelper helper;
  Platform::UniqueHandle lock = helper.AquireFileReadOnlyLock(path);
  if (lock == nullptr) {
    if (!VxAuthenticodeFacade().IsFileTrustedRestricted(path.c_str())) return nullptr;
    lock = helper.AquireFileReadOnlyLock(path);
    if (lock == nullptr) return nullptr;
  }
  auto judged = JudgeLocked(path, lock.get());
  if (!judged) return nullptr;
  return std::unique_ptr<const TrustedProgram>(
      new TrustedProgram(*std::move(judged), std::move(lock)));
}

}  // namespace Vx::Tessel::Security
