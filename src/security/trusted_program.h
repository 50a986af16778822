#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/files.h"
#include "platform/unique_handle.h"
#include "records/record.h"
#include "security/pinned_keys.h"

namespace Vx::Tessel::Security {

struct ProgramCheck;

// A program that was found trusted while it was locked, and that stays locked for the life of this
// object. The lock allows only reading, so neither the file nor the folders above it can be
// replaced before the program is started.
class TrustedProgram {
 public:
  // Locks `path` and checks it against `keys`. Returns the reason if the program cannot be locked
  // or is not trusted. Logs each step, but leaves logging the verdict to the caller. Blocks for as
  // long as VxAuthenticodeFacade does, which includes network access by Windows. Opens a file only
  // if WhyNotOpened and the path rule accept its path, and reads it only if the path rule accepts
  // its actual location.
  //
  // If the lock fails but the program is found trusted, tries the lock and the check once more,
  // because the process that prevented the first lock could have changed the file since.
  static ProgramCheck Check(const std::wstring& path, KeySet keys = RestrictedKeys());

  // Rechecks `path`, whose identity was `known` when Check found it trusted, against
  // RestrictedKeys. Returns nothing, without reading the file, unless it can be locked and its
  // identity, size and write time are the same.
  static std::optional<ProgramCheck> CheckUnchanged(const std::wstring& path,
                                                    const Platform::FileIdentity& known);

  // Returns why this path would not be opened, or None if it has a drive, no variables or control
  // characters, and no WindowsApps folder on a remote drive. Opens nothing. Thread-safe.
  static Server::Records::Reason WhyNotOpened(const std::wstring& path);

  TrustedProgram(const TrustedProgram&) = delete;
  TrustedProgram& operator=(const TrustedProgram&) = delete;
  ~TrustedProgram() = default;

  // The full path to start. If a link leads to the locked file, this is the file's actual location,
  // because the link can be changed without access to the file.
  const std::wstring& Path() const noexcept { return path; }

  // Returns the identity of the locked file. Empty if Windows cannot provide it.
  std::optional<Platform::FileIdentity> Identity() const;

 private:
  static ProgramCheck Judge(const std::wstring& path, Platform::UniqueHandle lock, KeySet keys);

  TrustedProgram(std::wstring judged, Platform::UniqueHandle held);

  std::wstring path;
  Platform::UniqueHandle lock;
};

struct ProgramCheck {
  std::unique_ptr<const TrustedProgram> program;  // null if refused
  Server::Records::Reason reason = {};            // why it was refused; None if it was not
};

}  // namespace Vx::Tessel::Security
