#pragma once

#include <memory>

#include "launch/behaviors.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

class QuboRegistrationCheckBehavior final : public Base::RegistrationCheckBehavior {
 public:
  explicit QuboRegistrationCheckBehavior(std::unique_ptr<RegistrationHelper> helper);

  RegistrationHelper::RegistrationState GetState() const override;

 private:
  std::unique_ptr<RegistrationHelper> registrationHelper;
};

// Starts the companion app, or its predecessor where that fails.
class QuboUwpLaunchBehavior final : public Base::ApplicationLaunchBehavior {
 public:
  static const wchar_t* const package_family_name;
  static const wchar_t* const alias;
  static const wchar_t* const package_family_name2;
  static const wchar_t* const alias2;

  bool Run(const std::wstring& parameter) const override;
  bool Run() const override;
};

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
