#pragma once

#include <memory>
#include <string>

#include "launch/behaviors.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

// One mark in the shared store: a boolean at its top level. A store that cannot be used reads as
// not marked and takes no mark; nothing is thrown.
class QuboLaunchCriteriaDataAccess final : public Base::ApplicationLaunchCriteriaDataAccess {
 public:
  explicit QuboLaunchCriteriaDataAccess(std::string storeKey);

  bool SaveSkipState(bool skip) const override;
  bool ShouldBeSkipped() const override;

 private:
  std::string key;
};

// Origin and version of the predecessor app's package as the console user has it; both zero where
// there is none or Windows refuses.
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
