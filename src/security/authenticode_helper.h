#pragma once

#include <string>
#include <vector>

#include "host/logging.h"
#include "platform/unique_handle.h"
#include "security/pinned_keys.h"
#include "security/signature_record.h"

namespace Vx::Tessel::Security {

enum class PathOutcome {
  Allowed,
  NotExpanded,      // its variables could not be expanded
  OutsidePrefixes,  // as written or in full, not below an allowed prefix or in a WindowsApps folder
  NotPlain,         // more than a drive, folders and a name, for example an alternate data stream
  NotFound,         // Windows could not resolve it
  LeadsElsewhere,   // a link leads to a place that is not allowed
  OpenFolder,       // its WindowsApps folder fails CheckForFullConrolByTrustedInstallAndSystem
};

// The result of the path rule, and what it is based on.
struct PathVerdict {
  PathOutcome outcome = PathOutcome::NotExpanded;
  std::wstring fullPath;                 // the full form of the path
  std::wstring finalPath;                // the file's actual location; empty if it was not resolved
  std::wstring prefix;                   // the expanded prefix that matched; may be empty
  std::vector<std::wstring> appFolders;  // WindowsApps folders whose access was checked
};

// The steps of the trust check. Stateless and thread-safe.
class VxAuthenticodeHelper {
 public:
  VxAuthenticodeHelper();

  // Returns the signatures of one kind whose result is success, untrusted root or expired, in index
  // order. Returns an empty list if there are none or Windows fails, which is logged.
  std::vector<SignatureRecord> CollectSignatures(const std::wstring& path,
                                                 SignatureKind kind) const;

  // Returns the signatures of both kinds, those of the catalog first.
  std::vector<SignatureRecord> CollectSignatures(const std::wstring& path) const;

  // Returns whether Windows accepts one of `records`: it is verified, or expired but otherwise
  // good. An untrusted root is never enough.
  static bool IsTrustedByWindows(const std::vector<SignatureRecord>& records) noexcept;

  // Returns whether any of `records` was signed with a key in `keys`.
  static bool IsKeyPinned(const std::vector<SignatureRecord>& records, KeySet keys) noexcept;

  // Returns whether only administrators can write to the file's location: below an allowed prefix,
  // or in a WindowsApps folder whose access list proves it. Blocks for up to a second per such
  // folder.
  bool IsPathAllowed(const std::wstring& path) const;

  // Like IsPathAllowed, but returns the details.
  PathVerdict CheckPath(const std::wstring& path) const;

  // Checks only the text of the path: returns false if CheckPath would reject every file with this
  // path. Opens nothing. Logs only a rejection, as CheckPath would.
  bool MayBeAllowed(const std::wstring& path) const;

  // Returns whether `folder` is owned by SYSTEM or TrustedInstaller and grants GENERIC_ALL to both.
  // Entries alone prove nothing, because the creator of a folder can add any entry. Accounts are
  // compared by SID, because their names depend on the language of Windows.
  bool CheckForFullConrolByTrustedInstallAndSystem(const std::wstring& folder) const;

  // Opens `path` for reading and shares it for reading only, so that it cannot be replaced between
  // a trust check and the start of the program. Logs the result. Returns null on failure.
  Platform::UniqueHandle AquireFileReadOnlyLock(const std::wstring& path) const;

 private:
  Server::Logging::TraceLogger* logger;
};

}  // namespace Vx::Tessel::Security
