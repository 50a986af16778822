#pragma once

#include <memory>
#include <string>

#include "host/logging.h"
#include "launch/behaviors.h"

namespace Vx::Tessel::Server::Services::Orvane::Aurelo {

// Starts the AI-experience app; there is no other to fall back on.
class AureloLaunchBehavior final : public Base::ApplicationLaunchBehavior {
 public:
  static const wchar_t* const package_family_name;
  static const wchar_t* const alias;

  bool Run(const std::wstring& parameter) const override;
  bool Run() const override;
};

// The AI-experience app of the console user. Built for one operation.
class AureloFacade {
 public:
  AureloFacade();
  explicit AureloFacade(std::unique_ptr<Base::ApplicationLaunchBehavior> launch);

  bool LaunchUwpForOobe() const;

 private:
  [[maybe_unused]] const Logging::TraceLogger* logger;
  std::unique_ptr<Base::ApplicationLaunchBehavior> launchBehavior;
};

}  // namespace Vx::Tessel::Server::Services::Orvane::Aurelo
