#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/packages.h"
#include "simulator/simulated_users.h"
#include "simulator/timeline.h"

namespace Vx::Simulator {

struct SimulatedPackage {
  std::wstring familyName;
  std::wstring fullName;    // Name_1.2.3.4_x64__publisher, which contains the version
  std::wstring folder;      // if empty, a folder in C:\Program Files\WindowsApps
  std::int32_t origin = 3;  // PackageOrigin_Store
};

// The packaged apps of a simulated machine: staged on it and registered for users. Thread-safe.
class SimulatedPackages final : public Platform::Packages {
 public:
  SimulatedPackages(Timeline& log, const SimulatedUsers& machineUsers, Platform::Clock& clockOf)
      : timeline(log), users(machineUsers), clock(clockOf) {}

  // Adds a package to the machine without registering it. Replaces one with the same full name.
  void Stage(const SimulatedPackage& package);

  // Adds a package to the machine and registers it for `user`.
  void Install(const SimulatedPackage& package, const std::wstring& user);

  // After `length`, removes the user's packages of the family, and removes from the machine those
  // that no longer have a user. The user's catalogs report the start at once (unless `length` is
  // zero) and the end later, on workers of the current machine, which must be the one with these
  // packages.
  void Uninstall(const std::wstring& familyName, const std::wstring& user,
                 Platform::Clock::Duration length = std::chrono::seconds(1));

  // Notifies the user's catalogs of `uninstall` on the calling thread. Removes nothing.
  void Notify(const std::wstring& user, const Platform::PackageUninstall& uninstall) const;

  // Returns the number of handlers registered with the user's catalogs.
  std::size_t Handlers(const std::wstring& user) const;

  // Sets the result of later Register calls: a failure, or success after `length`.
  void SetRegistration(Platform::PackageRegistration answer, Platform::Clock::Duration length);

  FamilyQuery FindByFamily(const std::wstring& familyName) const override;
  PathQuery PathByFullName(const std::wstring& fullName) const override;
  Platform::Result<std::int32_t> StagedOrigin(const std::wstring& fullName) const override;
  Platform::Result<std::uint64_t> Version(const std::wstring& fullName) const override;
  std::vector<std::wstring> FindForAllUsers(const std::wstring& familyName) const override;
  Platform::Result<std::wstring> AccountSid(const std::wstring& account) const override;
  std::vector<std::wstring> FindForUser(const std::wstring& sid,
                                        const std::wstring& familyName) const override;
  Platform::PackageRegistration Register(const std::wstring& fullName,
                                         std::chrono::milliseconds limit) override;
  std::shared_ptr<Platform::PackageCatalog> OpenCatalogForCurrentUser() override;

 private:
  class Catalog;
  class Uninstalling;

  struct Staged {
    SimulatedPackage package;
    std::set<std::wstring> sids;  // the users that have it registered
  };
  struct Watch {
    std::wstring sid;
    Platform::PackageCatalog::UninstallingHandler handler;
  };

  // Returns the SID of the acting user, or an empty string for the service, which has no packages.
  std::wstring ActingSid() const;
  std::vector<std::wstring> Registered(const std::wstring& sid, const std::wstring& family) const;
  void Remove(const std::wstring& familyName, const SimulatedUser& user);
  std::vector<Platform::PackageCatalog::UninstallingHandler> HandlersOf(
      const std::wstring& user) const;

  Timeline& timeline;
  const SimulatedUsers& users;
  Platform::Clock& clock;
  mutable std::mutex mutex;  // guards everything below
  std::map<std::wstring, Staged> packages;
  std::map<std::int64_t, Watch> watches;
  std::int64_t lastToken = 0;
  Platform::PackageRegistration registration;
  Platform::Clock::Duration registrationLength{};
};

}  // namespace Vx::Simulator
