#include "launch/aurelo.h"

#include <utility>

#include "launch/companion_apps.h"
#include "launch/launcher.h"

namespace Vx::Tessel::Server::Services::Orvane::Aurelo {

constinit const wchar_t* const AureloLaunchBehavior::package_family_name =
    kAurelo.packageFamilyName;
constinit const wchar_t* const AureloLaunchBehavior::alias = kAurelo.alias;

bool AureloLaunchBehavior::Run(const std::wstring& parameter) const {
  return Launcher().Run(alias, package_family_name, parameter);
}

bool AureloLaunchBehavior::Run() const {
  return Run({});
}

AureloFacade::AureloFacade() : AureloFacade(std::make_unique<AureloLaunchBehavior>()) {}

AureloFacade::AureloFacade(std::unique_ptr<Base::ApplicationLaunchBehavior> launch)
    : logger(Logging::LogManager::SetProvider(Logging::kComponentProvider)),
      launchBehavior(std::move(launch)) {}

bool AureloFacade::LaunchUwpForOobe() const {
  return launchBehavior->Run();
}

}  // namespace Vx::Tessel::Server::Services::Orvane::Aurelo
