#include "companion/software_check_behaviors.h"

#include <cstdint>
#include <stdexcept>

#include "companion/companion_apps.h"
#include "launch/launcher.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/registry.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

namespace {

constexpr char kNotImplemented[] = "Method not implemented yet.";

constexpr std::uint32_t kFolderAttribute = 0x10;

bool FolderExists(const std::wstring& pathWithVariables) {
  const Platform::Machine& machine = Platform::CurrentMachine();
  const auto path = machine.environment->Expand(pathWithVariables, Platform::kShortPath);
  if (!path) return false;
  const auto attributes = machine.files->Attributes(*path);
  return attributes && (*attributes & kFolderAttribute) != 0;
}

}  // namespace

SentraSoftwareCheckBehavior::SentraSoftwareCheckBehavior()
    : packageFamilyName(kSentraFamily),
      registryKey(L"SOFTWARE\\WOW6432Node\\Vexmoor\\SentraActive"),
      registryValue(L"Version"),
      preloadFolder(L"%programfiles%\\vx\\SentraPre\\") {}

bool SentraSoftwareCheckBehavior::IsWin32Installed() const {
  return Platform::CurrentMachine().registry->Exists(registryKey, registryValue);
}

bool SentraSoftwareCheckBehavior::IsUwpInstalled() const {
  const Launcher launcher;
  const auto token = launcher.GetUserTokenForCurrentUser(Platform::TokenType::Impersonation);
  if (token == nullptr) return false;
  return !launcher.GetPackageFullNameByFamilyName(packageFamilyName, token.get()).empty();
}

bool SentraSoftwareCheckBehavior::IsInstalled() const {
  return IsWin32Installed() || IsUwpInstalled();
}

bool SentraSoftwareCheckBehavior::IsPreloaded() const {
  return FolderExists(preloadFolder);
}

McAfeeSoftwareCheckBehavior::McAfeeSoftwareCheckBehavior()
    : installFolder(L"%programfiles%\\Common Files\\McAfee\\"),
      preloadFolder(L"%programfiles%\\Vx\\McAfeePre\\") {}

bool McAfeeSoftwareCheckBehavior::IsWin32Installed() const {
  return FolderExists(installFolder);
}

bool McAfeeSoftwareCheckBehavior::IsUwpInstalled() const {
  throw std::logic_error(kNotImplemented);
}

bool McAfeeSoftwareCheckBehavior::IsInstalled() const {
  return IsWin32Installed();
}

bool McAfeeSoftwareCheckBehavior::IsPreloaded() const {
  return FolderExists(preloadFolder);
}

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
