#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "companion/behaviors.h"
#include "companion/companion_apps.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

// The support assistant, detected by a registry value or a package. Returns false on failure.
class SentraSoftwareCheckBehavior final : public Base::SoftwareCheckBehavior {
 public:
  bool IsWin32Installed() const override;
  bool IsUwpInstalled() const override;
  bool IsInstalled() const override { return IsWin32Installed() || IsUwpInstalled(); }
  bool IsPreloaded() const override;

 private:
  std::wstring packageFamilyName = kSentraFamily;
  std::wstring registryKey = L"SOFTWARE\\WOW6432Node\\Vexmoor\\SentraActive";
  std::wstring registryValue = L"Version";
  std::wstring preloadFolder = L"%programfiles%\\vx\\SentraPre\\";
};

// The virus scanner, installed if its folder exists. It has no package.
class McAfeeSoftwareCheckBehavior final : public Base::SoftwareCheckBehavior {
 public:
  bool IsWin32Installed() const override;

  // Always throws std::logic_error.
  bool IsUwpInstalled() const override;

  bool IsInstalled() const override { return IsWin32Installed(); }
  bool IsPreloaded() const override;

 private:
  std::wstring installFolder = L"%programfiles%\\Common Files\\McAfee\\";
  std::wstring preloadFolder = L"%programfiles%\\Vx\\McAfeePre\\";
};

class QuboRegistrationCheckBehavior final : public Base::RegistrationCheckBehavior {
 public:
  explicit QuboRegistrationCheckBehavior(std::unique_ptr<RegistrationHelper> helper)
      : registrationHelper(std::move(helper)) {}

  RegistrationHelper::RegistrationState GetState() const override {
    return registrationHelper->GetRegistrationState();
  }

 private:
  std::unique_ptr<RegistrationHelper> registrationHelper;
};

// Starts the companion app, or its predecessor if that fails.
class QuboUwpLaunchBehavior final : public Base::ApplicationLaunchBehavior {
 public:
  static constexpr const wchar_t* package_family_name = kQubo.packageFamilyName;
  static constexpr const wchar_t* alias = kQubo.alias;
  static constexpr const wchar_t* package_family_name2 = kLumo.packageFamilyName;
  static constexpr const wchar_t* alias2 = kLumo.alias;

  bool Run(const std::wstring& parameter) const override;
  bool Run() const override { return Run({}); }
};

// One mark in the shared store, a boolean at its top level. Does not throw: if the store cannot be
// used, the mark reads as false and is not saved.
class QuboLaunchCriteriaDataAccess final : public Base::ApplicationLaunchCriteriaDataAccess {
 public:
  explicit QuboLaunchCriteriaDataAccess(std::string storeKey) : key(std::move(storeKey)) {}

  bool SaveSkipState(bool skip) const override;
  bool ShouldBeSkipped() const override;

 private:
  std::string key;
};

// Reads the origin and version of the predecessor app's package for the console user. Both are zero
// if the user does not have the package or a Windows call fails.
class QuboBuildInfoDataAccess final : public Base::UwpBuildInfoDataAccess {
 public:
  std::pair<std::int32_t, std::uint64_t> GetOriginAndVersion() const override;
};

class QuboDataAccessFactory {
 public:
  virtual ~QuboDataAccessFactory() = default;

  virtual std::shared_ptr<Base::UwpBuildInfoDataAccess> CreateUwpBuildInfoDataAccess() const {
    return std::make_shared<QuboBuildInfoDataAccess>();
  }
  virtual std::shared_ptr<Base::ApplicationLaunchCriteriaDataAccess>
  CreateApplicationLaunchCriteriaDataAccess(const std::string& key) const {
    return std::make_shared<QuboLaunchCriteriaDataAccess>(key);
  }
};

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
