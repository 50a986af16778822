#pragma once

#include <string>
#include <vector>

#include "launch/behaviors.h"

namespace Vx::Tests {

namespace Base = Tessel::Server::Services::Orvane::Base;

// All that a resume decision can be told, and what came of it.
struct ResumeWorld {
  using State = Tessel::Server::Services::Orvane::RegistrationHelper::RegistrationState;

  bool firstPreloaded = false;
  bool firstInstalled = false;
  bool secondPreloaded = false;
  bool secondInstalled = false;
  bool wasInSMode = false;
  bool isInSMode = false;
  bool softwareUsed = false;
  bool registrationUsed = false;
  State registration = State::Yes;
  bool launches = true;  // whether the app can be started

  mutable std::vector<std::string> done{};  // "launch" and "mark", each mark with its key
};

class WorldSoftware final : public Base::SoftwareCheckBehavior {
 public:
  WorldSoftware(bool isPreloaded, bool isInstalled)
      : preloaded(isPreloaded), installed(isInstalled) {}
  bool IsWin32Installed() const override { return installed; }
  bool IsUwpInstalled() const override { return installed; }
  bool IsInstalled() const override { return installed; }
  bool IsPreloaded() const override { return preloaded; }

 private:
  bool preloaded;
  bool installed;
};

// The registration, the mode and the start of the app in one.
class WorldBehavior final : public Base::RegistrationCheckBehavior,
                            public Base::ModeCheckBehavior,
                            public Base::ApplicationLaunchBehavior {
 public:
  explicit WorldBehavior(const ResumeWorld& of) : world(of) {}
  ResumeWorld::State GetState() const override { return world.registration; }
  bool HasBeenInSMode() override { return world.wasInSMode; }
  bool IsInSMode() const override { return world.isInSMode; }
  bool Run(const std::wstring&) const override { return Run(); }
  bool Run() const override {
    world.done.emplace_back("launch");
    return world.launches;
  }

 private:
  const ResumeWorld& world;
};

class WorldMark final : public Base::ApplicationLaunchCriteriaDataAccess {
 public:
  WorldMark(const ResumeWorld& of, const std::string& storeKey) : world(of), key(storeKey) {}
  bool SaveSkipState(bool skip) const override {
    world.done.push_back((skip ? "mark " : "unmark ") + key);
    return true;
  }
  bool ShouldBeSkipped() const override {
    return key == "qubo_autolaunch_software_happened" ? world.softwareUsed : world.registrationUsed;
  }

 private:
  const ResumeWorld& world;
  std::string key;
};

}  // namespace Vx::Tests
