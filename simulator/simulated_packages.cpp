#include "simulator/simulated_packages.h"

#include <atomic>
#include <memory>
#include <utility>

#include "platform/thread.h"

namespace Vx::Simulator {

namespace {

using Platform::Result;

constexpr Platform::ErrorCode kNotFound = 1168;           // ERROR_NOT_FOUND
constexpr Platform::ErrorCode kNoSuchAccount = 1332;      // ERROR_NONE_MAPPED
constexpr Platform::ErrorCode kInsufficientBuffer = 122;  // ERROR_INSUFFICIENT_BUFFER
constexpr Platform::ErrorCode kInvalidParameter = 87;     // ERROR_INVALID_PARAMETER
// HRESULTs of deployments.
constexpr auto kPackageNotFound = static_cast<std::int32_t>(0x80073CF1);
constexpr auto kTimedOut = static_cast<std::int32_t>(0x800705B4);

constexpr wchar_t kAppsFolder[] = L"C:\\Program Files\\WindowsApps\\";

}  // namespace

class SimulatedPackages::Uninstalling final : public Platform::PackageUninstall {
 public:
  explicit Uninstalling(std::wstring familyName) : family(std::move(familyName)) {}

  std::wstring FamilyName() const override { return family; }
  bool IsComplete() const override { return complete; }
  void Complete() { complete = true; }

 private:
  std::wstring family;
  std::atomic<bool> complete = false;
};

class SimulatedPackages::Catalog final : public Platform::PackageCatalog {
 public:
  Catalog(SimulatedPackages& packages, std::wstring userSid)
      : owner(packages), sid(std::move(userSid)) {}

  Token AddUninstalling(UninstallingHandler handler) override {
    const std::lock_guard guard(owner.mutex);
    owner.watches.emplace(++owner.lastToken, Watch{sid, std::move(handler)});
    return owner.lastToken;
  }
  void RemoveUninstalling(Token token) noexcept override {
    const std::lock_guard guard(owner.mutex);
    owner.watches.erase(token);
  }

 private:
  SimulatedPackages& owner;
  std::wstring sid;
};

void SimulatedPackages::Stage(const SimulatedPackage& package) {
  const std::lock_guard guard(mutex);
  packages[package.fullName].package = package;
}

void SimulatedPackages::Install(const SimulatedPackage& package, const std::wstring& user) {
  const auto owner = users.Find(user);
  {
    const std::lock_guard guard(mutex);
    Staged& staged = packages[package.fullName];
    staged.package = package;
    if (owner) staged.sids.insert(owner->sid);
  }
  timeline.Add(package.familyName + L" is installed for " + user);
}

void SimulatedPackages::Uninstall(const std::wstring& familyName, const std::wstring& user,
                                  Platform::Clock::Duration length) {
  const auto owner = users.Find(user);
  if (!owner) return;
  timeline.Add(user + L" uninstalls " + familyName);
  const auto uninstall = std::make_shared<Uninstalling>(familyName);
  const auto begin = std::make_shared<Platform::Thread>();
  if (length > Platform::Clock::Duration::zero()) {
    *begin = Platform::Thread([this, uninstall, user] { Notify(user, *uninstall); });
  }
  try {
    Platform::StartDetached([this, uninstall, owner = *owner, length, begin] {
      clock.Sleep(length);
      Remove(uninstall->FamilyName(), owner);
      uninstall->Complete();
      // Wait for the handlers of the start, which hold their lock while they poll for the end.
      if (begin->Joinable()) begin->Join();
      Notify(owner.name, *uninstall);
    });
  } catch (...) {
    if (begin->Joinable()) begin->Detach();
    throw;
  }
}

void SimulatedPackages::Remove(const std::wstring& familyName, const SimulatedUser& user) {
  {
    const std::lock_guard guard(mutex);
    for (auto entry = packages.begin(); entry != packages.end();) {
      Staged& staged = entry->second;
      const bool taken =
          staged.package.familyName == familyName && staged.sids.erase(user.sid) != 0;
      entry = taken && staged.sids.empty() ? packages.erase(entry) : std::next(entry);
    }
  }
  timeline.Add(familyName + L" is gone for " + user.name);
}

std::vector<Platform::PackageCatalog::UninstallingHandler> SimulatedPackages::HandlersOf(
    const std::wstring& user) const {
  const auto owner = users.Find(user);
  std::vector<Platform::PackageCatalog::UninstallingHandler> found;
  const std::lock_guard guard(mutex);
  for (const auto& [token, watch] : watches) {
    if (owner && watch.sid == owner->sid) found.push_back(watch.handler);
  }
  return found;
}

// Called without the lock, because handlers may wait and query packages.
void SimulatedPackages::Notify(const std::wstring& user,
                               const Platform::PackageUninstall& uninstall) const {
  for (const auto& handler : HandlersOf(user)) handler(uninstall);
}

std::size_t SimulatedPackages::Handlers(const std::wstring& user) const {
  return HandlersOf(user).size();
}

void SimulatedPackages::SetRegistration(Platform::PackageRegistration answer,
                                        Platform::Clock::Duration length) {
  const std::lock_guard guard(mutex);
  registration = std::move(answer);
  registrationLength = length;
}

std::wstring SimulatedPackages::ActingSid() const {
  const auto user = users.Acting();
  return user ? user->sid : std::wstring();
}

std::vector<std::wstring> SimulatedPackages::Registered(const std::wstring& sid,
                                                        const std::wstring& family) const {
  const std::lock_guard guard(mutex);
  std::vector<std::wstring> found;
  for (const auto& [fullName, staged] : packages) {
    if (staged.package.familyName == family && staged.sids.count(sid) != 0) {
      found.push_back(fullName);
    }
  }
  return found;
}

Platform::Packages::FamilyQuery SimulatedPackages::FindByFamily(
    const std::wstring& familyName) const {
  FamilyQuery query;
  query.fullNames = Registered(ActingSid(), familyName);
  if (query.fullNames.empty()) return query;
  query.sizeError = kInsufficientBuffer;
  for (const std::wstring& name : query.fullNames) {
    query.bufferLength += static_cast<std::uint32_t>(name.size() + 1);
  }
  return query;
}

Platform::Packages::PathQuery SimulatedPackages::PathByFullName(
    const std::wstring& fullName) const {
  const std::lock_guard guard(mutex);
  const auto found = packages.find(fullName);
  if (found == packages.end()) return {.sizeError = kNotFound, .error = 0, .path = {}};
  const std::wstring& folder = found->second.package.folder;
  return {.sizeError = 0, .error = 0, .path = folder.empty() ? kAppsFolder + fullName : folder};
}

Result<std::int32_t> SimulatedPackages::StagedOrigin(const std::wstring& fullName) const {
  const std::lock_guard guard(mutex);
  const auto found = packages.find(fullName);
  if (found == packages.end()) return Platform::Failure(kNotFound);
  return found->second.package.origin;
}

Result<std::uint64_t> SimulatedPackages::Version(const std::wstring& fullName) const {
  const std::size_t begin = fullName.find(L'_');
  if (begin == std::wstring::npos) return Platform::Failure(kInvalidParameter);
  std::uint64_t version = 0;
  std::uint64_t part = 0;
  for (std::size_t at = begin + 1; at < fullName.size() && fullName[at] != L'_'; ++at) {
    if (fullName[at] == L'.') {
      version = (version | part) << 16;
      part = 0;
    } else {
      part = part * 10 + static_cast<std::uint64_t>(fullName[at] - L'0');
    }
  }
  return version | part;
}

std::vector<std::wstring> SimulatedPackages::FindForAllUsers(const std::wstring& familyName) const {
  const std::lock_guard guard(mutex);
  std::vector<std::wstring> found;
  for (const auto& [fullName, staged] : packages) {
    if (staged.package.familyName == familyName) found.push_back(fullName);
  }
  return found;
}

Result<std::wstring> SimulatedPackages::AccountSid(const std::wstring& account) const {
  const auto user = users.Find(account.substr(account.find(L'\\') + 1));
  if (!user) return Platform::Failure(kNoSuchAccount);
  return user->sid;
}

std::vector<std::wstring> SimulatedPackages::FindForUser(const std::wstring& sid,
                                                         const std::wstring& familyName) const {
  return Registered(sid.empty() ? ActingSid() : sid, familyName);
}

Platform::PackageRegistration SimulatedPackages::Register(const std::wstring& fullName,
                                                          std::chrono::milliseconds limit) {
  const std::wstring sid = ActingSid();
  Platform::Clock::Duration length;
  Platform::PackageRegistration answer;
  {
    const std::lock_guard guard(mutex);
    length = registrationLength;
    answer = registration;
  }
  clock.Sleep(std::min<Platform::Clock::Duration>(length, limit));
  if (length > limit) return {.result = kTimedOut, .errorText = {}};
  if (answer.result < 0) return answer;
  {
    const std::lock_guard guard(mutex);
    const auto found = packages.find(fullName);
    if (found == packages.end()) {
      return {.result = kPackageNotFound, .errorText = L"The package is not on this machine."};
    }
    found->second.sids.insert(sid);
  }
  timeline.Add(fullName + L" is registered");
  return answer;
}

std::shared_ptr<Platform::PackageCatalog> SimulatedPackages::OpenCatalogForCurrentUser() {
  return std::make_shared<Catalog>(*this, ActingSid());
}

}  // namespace Vx::Simulator
