#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/logging.h"
#include "platform/result.h"
#include "platform/unique_handle.h"
#include "security/pinned_keys.h"
#include "security/signature_record.h"

namespace Vx::Tessel::Security {

enum class SignatureKind { Catalog, Embedded };

enum class PathOutcome {
  Allowed,
  NotExpanded,      // its variables could not be put in
  OutsidePrefixes,  // below none of the allowed prefixes and in no WindowsApps folder
  NotPlain,         // not a drive, folders and a name: an alternate data stream, say
  NotFound,         // Windows could not say where the file lies
  LeadsElsewhere,   // a link takes it to a place that is not allowed
  OpenFolder,       // its WindowsApps folder is not TrustedInstaller's and SYSTEM's
};

// How the path rule came to its answer.
struct PathVerdict {
  PathOutcome outcome = PathOutcome::NotExpanded;
  std::wstring fullPath;                 // the text that the prefixes were compared with
  std::wstring finalPath;                // where the file lies; empty unless that was asked
  std::wstring prefix;                   // the expanded prefix that matched; may be empty
  std::vector<std::wstring> appFolders;  // WindowsApps folders whose access was looked at
};

// The pieces of the trust check. Keeps no state between calls; any thread.
class VxAuthenticodeHelper {
 public:
  VxAuthenticodeHelper();

  // The signatures of one kind whose result is success, untrusted root or expired, in the order of
  // their index. Empty when there are none or Windows fails, which is logged.
  std::vector<SignatureRecord> CollectSignatures(const std::wstring& path,
                                                 SignatureKind kind) const;

  // Whether Windows accepts one of `records`: verified, or expired and otherwise good. An untrusted
  // root is never enough.
  static bool IsTrustedByWindows(const std::vector<SignatureRecord>& records) noexcept;

  // Whether one of `records` was made with a key of `keys`.
  static bool IsKeyPinned(const std::vector<SignatureRecord>& records, KeySet keys) noexcept;

  // Whether the file lies where only administrators put programs: below an allowed prefix, or in a
  // WindowsApps folder whose access list proves it. Blocks for up to a second per such folder.
  bool IsPathAllowed(const std::wstring& path) const;

  // The same decision with its reasons.
  PathVerdict JudgePath(const std::wstring& path) const;

  // Whether `folder` grants GENERIC_ALL to both NT SERVICE\TrustedInstaller and
  // NT AUTHORITY\SYSTEM.
  bool CheckForFullConrolByTrustedInstallAndSystem(const std::wstring& folder) const;

  // Opens `path` for reading with read sharing only, so that it cannot be replaced between a trust
  // check and the start of the program, and logs the outcome. Empty when it cannot be opened.
  Platform::UniqueHandle AquireFileReadOnlyLock(const std::wstring& path) const;

 private:
  struct Place {
    std::wstring prefix;
    std::optional<std::wstring> appFolder;
  };
  enum class Misses { Logged, Silent };

  std::optional<Place> FindPlace(const std::wstring& fullPath, Misses misses) const;
  bool ResolveFinalPath(const std::wstring& path, const std::wstring& expanded,
                        PathVerdict& verdict) const;
  bool HasFullControl(const std::wstring& folder, Platform::ErrorCode& error) const;
  bool HasFullControlWithRetries(const std::wstring& folder) const;
  void Append(const Platform::SignatureVerdict& verdict,
              std::vector<SignatureRecord>& records) const;

  Server::Logging::TraceLogger* logger;
};

}  // namespace Vx::Tessel::Security
