#pragma once

#include "records/record.h"
#include "security/pinned_keys.h"

namespace Vx::Tessel::Security {

// Why the file at the full path `path` is not trusted against `keys`; None if it is. A null path
// is not. A failure of the check is a reason too, and is logged with `operation`.
Server::Records::Reason WhyNotTrusted(KeySet keys, const wchar_t* path,
                                      const char* operation) noexcept;

// Base of the trust check, so that callers can receive another implementation. `path` is a full
// path. A null or empty path is never trusted. Nothing is thrown.
class VxAuthenticodeFacadeBase {
 public:
  virtual bool IsFileTrusted(const wchar_t* path) = 0;
  virtual bool IsFileTrustedRestricted(const wchar_t* path) = 0;
  virtual bool IsDropboxFileTrusted(const wchar_t* path) = 0;

 protected:
  ~VxAuthenticodeFacadeBase() = default;
};

// Whether a file is genuine: accepted by Windows, signed with a pinned key, in a protected place.
// Keeps no state; any thread. A failed check of an access list takes up to about a second. Windows
// may fetch certificates from the network meanwhile, so no lock that others need belongs around a
// check.
class VxAuthenticodeFacade final : public VxAuthenticodeFacadeBase {
 public:
  bool IsFileTrusted(const wchar_t* path) override;
  bool IsFileTrustedRestricted(const wchar_t* path) override;
  bool IsDropboxFileTrusted(const wchar_t* path) override;
};

}  // namespace Vx::Tessel::Security
