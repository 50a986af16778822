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

// A program that was judged as trusted while it was locked, and that stays locked for the life of
// this object. The lock allows reading only, so neither the file nor the folders above it can be
// replaced before the program is started.
class TrustedProgram {
 public:
  // Locks `path` and judges it against `keys`. Returns the reason if the program cannot be locked
  // or is not trusted. Logs each step but not the refusal. Blocks for as long as
  // VxAuthenticodeFacade, which includes network look-ups of Windows. Opens only a file whose text
  // WhyNotOpened and the path rule accept, and reads only one whose place the path rule accepts.
  //
  // A lock that is refused does not end the check. If the program is then found trusted, the lock
  // is tried once more and the program is judged again under it, because the process that kept the
  // first lock from being taken could have changed the file since.
  static ProgramCheck Check(const std::wstring& path, KeySet keys = RestrictedKeys());

  // The same in short for a `path` that Check found trusted as `known`. Empty, and nothing is read,
  // unless the file can be locked and is still that one, of the same size and time of writing.
  static std::optional<ProgramCheck> CheckUnchanged(const std::wstring& path,
                                                    const Platform::FileIdentity& known);

  // Returns why no program of this text is opened. None when it is a full path on a drive of this
  // machine, without variables. Opens nothing; any thread.
  static Server::Records::Reason WhyNotOpened(const std::wstring& path);

  TrustedProgram(const TrustedProgram&) = delete;
  TrustedProgram& operator=(const TrustedProgram&) = delete;
  ~TrustedProgram() = default;

  // The full path to start: the place of the locked file where a link leads to it, because the link
  // can be changed without access to the file.
  const std::wstring& Path() const noexcept { return path; }

  // Of the locked file. Empty if Windows cannot tell.
  std::optional<Platform::FileIdentity> Identity() const;

 private:
  static ProgramCheck Judge(const std::wstring& path, Platform::UniqueHandle lock, KeySet keys);

  TrustedProgram(std::wstring judged, Platform::UniqueHandle held);

  std::wstring path;
  Platform::UniqueHandle lock;
};

struct ProgramCheck {
  std::unique_ptr<const TrustedProgram> program;  // null if it is refused
  Server::Records::Reason reason = {};            // why; None if it is not
};

}  // namespace Vx::Tessel::Security
