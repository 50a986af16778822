#include "security/trusted_program.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "host/logging.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "security/authenticode_facade.h"
#include "security/authenticode_helper.h"
#include "security/path_rules.h"

namespace Vx::Tessel::Security {

namespace {

using Server::Logging::kComponentProvider;
using Server::Logging::LogManager;

constexpr wchar_t kRefusedText[] = L"TrustedProgram - [%s] is not opened, because it %s";
constexpr char kOperation[] = "IsFileTrustedRestricted";

// Returns what to start for `path`, judged while `lock` holds the file. Empty when that is not
// trusted.
std::optional<std::wstring> JudgeLocked(const std::wstring& path, Platform::RawHandle lock,
                                        KeySet keys) {
  if (!IsTrustedBy(keys, path.c_str(), kOperation)) return std::nullopt;
  auto place = Platform::CurrentMachine().files->FinalPathOf(lock);
  if (!place) return std::nullopt;
  // Exactly: where a folder distinguishes case, another spelling is another object.
  if (*place == path) return path;
  if (!IsTrustedBy(keys, place->c_str(), kOperation)) return std::nullopt;
  return *std::move(place);
}

}  // namespace

TrustedProgram::TrustedProgram(std::wstring judged, Platform::UniqueHandle held)
    : path(std::move(judged)), lock(std::move(held)) {}

// The text that is judged must be the text that is opened: a pipe or a share would get a connection
// of SYSTEM before any signature is looked at.
const wchar_t* TrustedProgram::WhyNotOpened(const std::wstring& path) {
  if (!IsDrivePath(path)) return L"is not a full path on a drive";
  const bool control = std::ranges::any_of(path, [](wchar_t c) { return c < L' '; });
  if (control) return L"holds a control character";
  if (path.find(L'%') != path.npos) {
    const auto expanded =
        Platform::CurrentMachine().environment->Expand(path, Platform::kLongestPath);
    if (!expanded || *expanded != path) return L"holds a variable";
  }
  // The other places that the path rule allows are on the drives of Windows itself.
  if (DriveWindowsAppsFolder(path) && Platform::CurrentMachine().files->IsElsewhere(path)) {
    return L"is on no drive of this machine";
  }
  return nullptr;
}

std::unique_ptr<const TrustedProgram> TrustedProgram::Check(const std::wstring& path, KeySet keys) {
  if (const wchar_t* reason = WhyNotOpened(path)) {
    LogManager::SetProvider(kComponentProvider)->LogWarning(kRefusedText, path.c_str(), reason);
    return nullptr;
  }
  const VxAuthenticodeHelper helper;
  // A file elsewhere is not even read: hashing a huge one would take a minute.
  if (!helper.MayBeAllowed(path)) return nullptr;
  Platform::UniqueHandle lock = helper.AquireFileReadOnlyLock(path);
  if (lock == nullptr) {
    if (!IsTrustedBy(keys, path.c_str(), kOperation)) return nullptr;
    lock = helper.AquireFileReadOnlyLock(path);
    if (lock == nullptr) return nullptr;
  }
  auto judged = JudgeLocked(path, lock.get(), keys);
  if (!judged) return nullptr;
  return std::unique_ptr<const TrustedProgram>(
      new TrustedProgram(*std::move(judged), std::move(lock)));
}

}  // namespace Vx::Tessel::Security
