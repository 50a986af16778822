#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "companion/behaviors.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

class QuboRegistrationCheckBehavior final : public Base::RegistrationCheckBehavior {
 public:
  explicit QuboRegistrationCheckBehavior(std::unique_ptr<RegistrationHelper> helper);

  RegistrationHelper::RegistrationState GetState() const override;

 private:
  std::unique_ptr<RegistrationHelper> registrationHelper;
};

// Starts the companion app, or its predecessor if that fails.
class QuboUwpLaunchBehavior final : public Base::ApplicationLaunchBehavior {
 public:
  static const wchar_t* const package_family_name;
  static const wchar_t* const alias;
  static const wchar_t* const package_family_name2;
  static const wchar_t* const alias2;

  bool Run(const std::wstring& parameter) const override;
  bool Run() const override;
};

// One mark in the shared store, a boolean at its top level. Does not throw: if the store cannot be
// used, the mark reads as false and is not saved.
class QuboLaunchCriteriaDataAccess final : public Base::ApplicationLaunchCriteriaDataAccess {
 public:
  explicit QuboLaunchCriteriaDataAccess(std::string storeKey);

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

  virtual std::shared_ptr<Base::UwpBuildInfoDataAccess> CreateUwpBuildInfoDataAccess() const;
  virtual std::shared_ptr<Base::ApplicationLaunchCriteriaDataAccess>
  CreateApplicationLaunchCriteriaDataAccess(const std::string& key) const;
};

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
