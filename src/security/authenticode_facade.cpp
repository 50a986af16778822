#include "security/authenticode_facade.h"

#include "host/logging.h"
#include "platform/processes.h"
#include "security/file_trust.h"

namespace Vx::Tessel::Security {

using Server::Records::Reason;

namespace {

constexpr wchar_t kCheckFailed[] = L"Security - %S - the check failed, not trusted";

// Windows parses the first word of a command line by special rules (it ignores quotes inside the
// word). Another word in front turns the original first word into an ordinary argument.
constexpr wchar_t kWordInFront[] = L"test.exe ";

// The only exception boundary of a trust check. Every failure inside it means "not trusted".
template <typename Check>
Reason CatchAndLog(const char* operation, const wchar_t* path, Check check) noexcept {
  try {
    return path == nullptr ? Reason::NotOnDrive : ReasonOf(check(std::wstring(path)));
  } catch (...) {
    using Server::Logging::LogManager;
    LogManager::SetProvider(Server::Logging::kComponentProvider)->LogError(kCheckFailed, operation);
    return Reason::Exception;
  }
}

}  // namespace

Reason WhyNotTrusted(KeySet keys, const wchar_t* path, const char* operation) noexcept {
  return CatchAndLog(operation, path,
                     [&](const std::wstring& file) { return VerifyFile(file, keys); });
}

bool VxAuthenticodeFacade::IsFileTrusted(const wchar_t* path) {
  return WhyNotTrusted(GeneralKeys(), path, "IsFileTrusted") == Reason::None;
}

bool VxAuthenticodeFacade::IsFileTrustedRestricted(const wchar_t* path) {
  return WhyNotTrusted(RestrictedKeys(), path, "IsFileTrustedRestricted") == Reason::None;
}

bool VxAuthenticodeFacade::IsDropboxFileTrusted(const wchar_t* path) {
  return CatchAndLog("IsDropboxFileTrusted", path, &VerifyDropboxFile) == Reason::None;
}

bool IsCommandLineTrusted(VxAuthenticodeFacadeBase& facade,
                          const std::wstring& commandLine) noexcept {
  try {
    if (commandLine.size() > Platform::kMaxCommandLine) return false;
    // Windows stops reading at a NUL, so the text after it would not be checked.
    if (commandLine.find(L'\0') != std::wstring::npos) return false;
    const auto words = Platform::SplitCommandLine(kWordInFront + commandLine);
    return words.size() > 1 && facade.IsFileTrusted(words[1].c_str());
  } catch (...) {
    return false;
  }
}

}  // namespace Vx::Tessel::Security
