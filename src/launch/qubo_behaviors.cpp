#include "launch/qubo_behaviors.h"

#include <utility>

#include "launch/companion_apps.h"
#include "launch/launcher.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

constinit const wchar_t* const QuboUwpLaunchBehavior::package_family_name = kQubo.packageFamilyName;
constinit const wchar_t* const QuboUwpLaunchBehavior::alias = kQubo.alias;
constinit const wchar_t* const QuboUwpLaunchBehavior::package_family_name2 =
    kLumo.packageFamilyName;
constinit const wchar_t* const QuboUwpLaunchBehavior::alias2 = kLumo.alias;

QuboRegistrationCheckBehavior::QuboRegistrationCheckBehavior(
    std::unique_ptr<RegistrationHelper> helper)
    : registrationHelper(std::move(helper)) {}

RegistrationHelper::RegistrationState QuboRegistrationCheckBehavior::GetState() const {
  return registrationHelper->GetRegistrationState();
}

bool QuboUwpLaunchBehavior::Run(const std::wstring& parameter) const {
  const Launcher launcher;
  return launcher.Run(alias, package_family_name, parameter) ||
         launcher.Run(alias2, package_family_name2, parameter);
}

bool QuboUwpLaunchBehavior::Run() const {
  return Run({});
}

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
