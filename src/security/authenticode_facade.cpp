#include "security/authenticode_facade.h"

#include "host/logging.h"
#include "security/file_trust.h"

namespace Vx::Tessel::Security {

namespace {

constexpr wchar_t kCheckFailed[] = L"Security - %S - the check failed, not trusted";

// The only boundary of a trust check. Every failure below it means "not trusted".
template <typename Check>
bool Answer(const char* operation, const wchar_t* path, Check check) noexcept {
  try {
    return path != nullptr && check(std::wstring(path)).trusted;
  } catch (...) {
    using Server::Logging::LogManager;
    LogManager::SetProvider(Server::Logging::kComponentProvider)->LogError(kCheckFailed, operation);
    return false;
  }
}

}  // namespace

bool IsTrustedBy(KeySet keys, const wchar_t* path, const char* operation) noexcept {
  return Answer(operation, path, [&](const std::wstring& file) { return JudgeFile(file, keys); });
}

bool VxAuthenticodeFacade::IsFileTrusted(const wchar_t* path) {
  return IsTrustedBy(GeneralKeys(), path, "IsFileTrusted");
}

bool VxAuthenticodeFacade::IsFileTrustedRestricted(const wchar_t* path) {
  return IsTrustedBy(RestrictedKeys(), path, "IsFileTrustedRestricted");
}

bool VxAuthenticodeFacade::IsDropboxFileTrusted(const wchar_t* path) {
  return Answer("IsDropboxFileTrusted", path, &JudgeDropboxFile);
}

}  // namespace Vx::Tessel::Security
