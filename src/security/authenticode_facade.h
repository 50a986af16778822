#pragma once

#include <string>

#include "records/record.h"
#include "security/pinned_keys.h"

namespace Vx::Tessel::Security {

// Checks the file at the full path `path` against the pinned `keys`. Returns why it is not trusted,
// or None if it is. A null path is not trusted. If the check itself fails, logs `operation`.
Server::Records::Reason WhyNotTrusted(KeySet keys, const wchar_t* path,
                                      const char* operation) noexcept;

// The interface of the trust check, so that callers can be given another implementation. `path` is
// a full path. A null or empty one is never trusted. Does not throw.
class VxAuthenticodeFacadeBase {
 public:
  virtual bool IsFileTrusted(const wchar_t* path) = 0;
  virtual bool IsFileTrustedRestricted(const wchar_t* path) = 0;
  virtual bool IsDropboxFileTrusted(const wchar_t* path) = 0;

 protected:
  ~VxAuthenticodeFacadeBase() = default;
};

// Decides whether a file is genuine: accepted by Windows, signed with a pinned key, and in a
// protected place. Stateless and thread-safe. Retries a failed access check for about a second.
// Windows may also fetch certificates from the network, so hold no lock that others need.
class VxAuthenticodeFacade final : public VxAuthenticodeFacadeBase {
 public:
  bool IsFileTrusted(const wchar_t* path) override;
  bool IsFileTrustedRestricted(const wchar_t* path) override;
  bool IsDropboxFileTrusted(const wchar_t* path) override;
};

// Returns whether the program of a command line (its first word) passes IsFileTrusted. A path with
// spaces must be quoted. An empty or overlong command line is not trusted. Does not throw.
bool IsCommandLineTrusted(VxAuthenticodeFacadeBase& facade,
                          const std::wstring& commandLine) noexcept;

}  // namespace Vx::Tessel::Security
