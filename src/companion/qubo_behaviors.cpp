#include "companion/qubo_behaviors.h"

#include <exception>
#include <stdexcept>

#include "host/logging.h"
#include "json/utf8.h"
#include "launch/launcher.h"
#include "packages/uwp_package.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "storage/cap_data_store.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

namespace {

constexpr char kNotImplemented[] = "Method not implemented yet.";

constexpr std::uint32_t kFolderAttribute = 0x10;

constexpr wchar_t kNotMarked[] = L"CapDataStore - a mark was not stored: %S";

constexpr std::size_t kLongestKey = 256;  // UTF-16 units

bool FolderExists(const std::wstring& pathWithVariables) {
  const Platform::Machine& machine = Platform::CurrentMachine();
  const auto path = machine.environment->Expand(pathWithVariables, Platform::kShortPath);
  if (!path) return false;
  const auto attributes = machine.files->Attributes(*path);
  return attributes && (*attributes & kFolderAttribute) != 0;
}

}  // namespace

bool SentraSoftwareCheckBehavior::IsWin32Installed() const {
  return Platform::CurrentMachine().registry->Exists(registryKey, registryValue);
}

bool SentraSoftwareCheckBehavior::IsUwpInstalled() const {
  const Launcher launcher;
  const auto token = launcher.GetUserTokenForCurrentUser(Platform::TokenType::Impersonation);
  if (token == nullptr) return false;
  return !launcher.GetPackageFullNameByFamilyName(packageFamilyName, token.get()).empty();
}

bool SentraSoftwareCheckBehavior::IsPreloaded() const {
  return FolderExists(preloadFolder);
}

bool McAfeeSoftwareCheckBehavior::IsWin32Installed() const {
  return FolderExists(installFolder);
}

bool McAfeeSoftwareCheckBehavior::IsUwpInstalled() const {
  throw std::logic_error(kNotImplemented);
}

bool McAfeeSoftwareCheckBehavior::IsPreloaded() const {
  return FolderExists(preloadFolder);
}

bool QuboUwpLaunchBehavior::Run(const std::wstring& parameter) const {
  const Launcher launcher;
  return launcher.Run(alias, package_family_name, parameter) ||
         launcher.Run(alias2, package_family_name2, parameter);
}

bool QuboLaunchCriteriaDataAccess::SaveSkipState(bool skip) const {
  // The client chooses the key. An empty key is not a criterion, and long ones would fill the
  // store.
  if (key.empty() || Json::ToWide(key).size() > kLongestKey) return false;
  try {
    // A document under the client's key belongs to another writer or to this service. Keep it.
    const auto store = Storage::TryOpenStore();  // logs a failure
    return store != nullptr && store->persistUnlessDocument(key, skip);
  } catch (const std::exception& error) {
    Logging::LogManager::SetProvider(Logging::kComponentProvider)
        ->LogWarning(kNotMarked, error.what());
    return false;
  }
}

bool QuboLaunchCriteriaDataAccess::ShouldBeSkipped() const {
  if (key.empty()) return false;
  try {
    return Storage::CapDataStore().readBool(key, false);
  } catch (const std::exception&) {
    return false;
  }
}

std::pair<std::int32_t, std::uint64_t> QuboBuildInfoDataAccess::GetOriginAndVersion() const {
  try {
    return UwpPackageDataAccess().GetOriginAndVersion(kLumo.packageFamilyName);
  } catch (const std::exception&) {
    return {0, 0};
  }
}

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
