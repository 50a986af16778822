#include "security/trusted_program.h"

#include <algorithm>
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
using Server::Records::Reason;

constexpr wchar_t kRefusedText[] = L"TrustedProgram - [%s] is not opened, because %s";
constexpr char kOperation[] = "IsFileTrustedRestricted";

}  // namespace

TrustedProgram::TrustedProgram(std::wstring judged, Platform::UniqueHandle held)
    : path(std::move(judged)), lock(std::move(held)) {}

// Another kind of path could make SYSTEM connect to a pipe or a share before a signature is
// checked, or could name a file other than the one that was checked.
Reason TrustedProgram::WhyNotOpened(const std::wstring& path) {
  if (!IsDrivePath(path)) return Reason::NotOnDrive;
  const bool control = std::ranges::any_of(path, [](wchar_t c) { return c < L' '; });
  if (control) return Reason::ControlCharacter;
  if (path.find(L'%') != path.npos) {
    const auto expanded =
        Platform::CurrentMachine().environment->Expand(path, Platform::kLongestPath);
    if (!expanded || *expanded != path) return Reason::Variable;
  }
  // The other allowed places are on Windows' own drives.
  if (DriveWindowsAppsFolder(path) && Platform::CurrentMachine().files->IsElsewhere(path)) {
    return Reason::OtherMachine;
  }
  return Reason::None;
}

ProgramCheck TrustedProgram::Check(const std::wstring& path, KeySet keys) {
  if (const Reason reason = WhyNotOpened(path); reason != Reason::None) {
    LogManager::SetProvider(kComponentProvider)
        ->LogWarning(kRefusedText, path.c_str(), Server::Records::NameOf(reason).text);
    return {nullptr, reason};
  }
  const VxAuthenticodeHelper helper;
  // A file elsewhere is not even read, because hashing a huge one would take a minute.
  if (!helper.MayBeAllowed(path)) return {nullptr, Reason::Place};
  Platform::UniqueHandle lock = helper.AquireFileReadOnlyLock(path);
  if (lock == nullptr) {
    const auto place = Platform::CurrentMachine().files->FinalPath(path);
    if (place && *place != path && !helper.MayBeAllowed(*place)) return {nullptr, Reason::Place};
    const Reason reason = WhyNotTrusted(keys, path.c_str(), kOperation);
    if (reason == Reason::None) lock = helper.AquireFileReadOnlyLock(path);
    // A file that cannot be locked usually cannot be read, so its signature is not the reason.
    if (lock == nullptr) return {nullptr, Reason::NotLocked};
  }
  return Judge(path, std::move(lock), keys);
}

std::optional<ProgramCheck> TrustedProgram::CheckUnchanged(const std::wstring& path,
                                                           const Platform::FileIdentity& known) {
  if (WhyNotOpened(path) != Reason::None) return std::nullopt;
  Platform::UniqueHandle lock = VxAuthenticodeHelper().AquireFileReadOnlyLock(path);
  if (lock == nullptr) return std::nullopt;
  const auto found = Platform::CurrentMachine().files->IdentityOf(lock.get());
  if (!found || *found != known) return std::nullopt;
  return Judge(path, std::move(lock), RestrictedKeys());
}

std::optional<Platform::FileIdentity> TrustedProgram::Identity() const {
  const auto identity = Platform::CurrentMachine().files->IdentityOf(lock.get());
  return identity ? std::optional(*identity) : std::nullopt;
}

// Checks `path` while `lock` keeps the file from changing.
ProgramCheck TrustedProgram::Judge(const std::wstring& path, Platform::UniqueHandle lock,
                                   KeySet keys) {
  auto place = Platform::CurrentMachine().files->FinalPathOf(lock.get());
  if (!place) return {nullptr, Reason::NotLocked};
  // An exact comparison: in a case-sensitive folder, another spelling is another file.
  if (*place != path) {
    // Nothing is read through the link, which may lead elsewhere by now.
    const PathVerdict verdict = VxAuthenticodeHelper().CheckPath(path);
    if (verdict.outcome != PathOutcome::Allowed || verdict.finalPath != *place) {
      return {nullptr, Reason::Place};
    }
  }
  const Reason reason = WhyNotTrusted(keys, place->c_str(), kOperation);
  if (reason != Reason::None) return {nullptr, reason};
  return {
      std::unique_ptr<const TrustedProgram>(new TrustedProgram(*std::move(place), std::move(lock))),
      Reason::None};
}

}  // namespace Vx::Tessel::Security
