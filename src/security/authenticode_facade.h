#pragma once

#include <optional>
#include <string>

#include "platform/unique_handle.h"

namespace Vx::Tessel::Security {

// Base of the trust check, so that callers can be handed another one. `path` is a full path; null
// or empty is never trusted. Nothing is thrown.
class VxAuthenticodeFacadeBase {
 public:
  virtual bool IsFileTrusted(const wchar_t* path) = 0;
  virtual bool IsFileTrustedRestricted(const wchar_t* path) = 0;
  virtual bool IsDropboxFileTrusted(const wchar_t* path) = 0;

 protected:
  ~VxAuthenticodeFacadeBase() = default;
};

// Whether a file is genuine: accepted by Windows, signed with a pinned key, in a protected place.
// Keeps no state; any thread. An access-list check that fails costs up to about a second.
class VxAuthenticodeFacade final : public VxAuthenticodeFacadeBase {
 public:
  bool IsFileTrusted(const wchar_t* path) override;
  bool IsFileTrustedRestricted(const wchar_t* path) override;
  bool IsDropboxFileTrusted(const wchar_t* path) override;
};

// Opens `path` for reading with read sharing only, so that it cannot be replaced between a trust
// check and the start of the program, and logs the outcome. Empty when it cannot be opened.
Platform::UniqueHandle AquireFileReadOnlyLock(const std::wstring& path);

// What to start in the place of `path`, judged against the restricted keys; empty when that is not
// trusted. `held` is what AquireFileReadOnlyLock gave for `path`.
//
// A link on the way may be turned elsewhere between the check and the start, which takes no access
// to the file. The locked file stays where it is, and so do the folders above it: its own place is
// judged too and started, where `path` is not that place. Without a lock the answer is `path`.
std::optional<std::wstring> TrustedProgram(const std::wstring& path, Platform::RawHandle held);

}  // namespace Vx::Tessel::Security
