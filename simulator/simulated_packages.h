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
  std::wstring fullName;    // Name_1.2.3.4_x64__publisher; the version is taken from here
  std::wstring folder;      // empty: below C:\Program Files\WindowsApps
  std::int32_t origin = 3;  // the store's code in Windows
};

// The packaged apps of a simulated machine: on the machine ("staged"), and registered for each
// user. Any thread.
class SimulatedPackages final : public Platform::Packages {
 public:
  SimulatedPackages(Timeline& log, const SimulatedUsers& machineUsers, Platform::Clock& clockOf)
      : timeline(log), users(machineUsers), clock(clockOf) {}

  // On the machine, for no user yet. A package of the same full name is replaced.
  void Stage(const SimulatedPackage& package);

  // On the machine and registered for the user of this name.
  void Install(const SimulatedPackage& package, const std::wstring& user);

  // Takes the user's packages of the family away, `length` from now; those whom no user has any
  // more go from the machine. The user's catalogs tell of the start at once (of one without length
  // not at all) and of the end, on workers of the current machine, which has to be the one of these
  // packages.
  void Uninstall(const std::wstring& familyName, const std::wstring& user,
                 Platform::Clock::Duration length = std::chrono::seconds(1));

  // Tells the user's catalogs, on the calling thread, of an uninstall that its maker answers for.
  void Notify(const std::wstring& user, const Platform::PackageUninstall& uninstall) const;

  // How many handlers the user's catalogs have.
  std::size_t Handlers(const std::wstring& user) const;

  // What Register answers from now on: a failure, or success after `length`.
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
    std::set<std::wstring> sids;  // of the users who have it registered
  };
  struct Watch {
    std::wstring sid;
    Platform::PackageCatalog::UninstallingHandler handler;
  };

  // The SID of the acting user; empty for the service itself, which has no packages.
  std::wstring ActingSid() const;
  std::vector<std::wstring> Registered(const std::wstring& sid, const std::wstring& family) const;
  void Remove(const std::wstring& familyName, const SimulatedUser& user);
  std::vector<Platform::PackageCatalog::UninstallingHandler> HandlersOf(
      const std::wstring& user) const;

  Timeline& timeline;
  const SimulatedUsers& users;
  Platform::Clock& clock;
  mutable std::mutex mutex;  // guards what follows
  std::map<std::wstring, Staged> packages;
  std::map<std::int64_t, Watch> watches;
  std::int64_t lastToken = 0;
  Platform::PackageRegistration registration;
  Platform::Clock::Duration registrationLength{};
};

}  // namespace Vx::Simulator
