#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/hresult_error.h"
#include "platform/packages.h"

namespace Vx::Tests {

// A notification whose completion state is asked for and answered by the test.
class FakeUninstall final : public Platform::PackageUninstall {
 public:
  explicit FakeUninstall(
      std::wstring family, std::function<bool()> complete = [] { return true; })
      : familyName(std::move(family)), isComplete(std::move(complete)) {}

  std::wstring FamilyName() const override { return familyName; }
  bool IsComplete() const override { return isComplete(); }

 private:
  std::wstring familyName;
  std::function<bool()> isComplete;
};

// The packages of a machine and its one catalog, which tells its handlers what the test says. Any
// thread.
class FakePackageCatalog final : public Platform::Packages {
 public:
  // Calls every handler that is there at this moment, on the calling thread.
  void Notify(const Platform::PackageUninstall& uninstall) {
    std::map<std::int64_t, Platform::PackageCatalog::UninstallingHandler> called;
    {
      const std::lock_guard guard(mutex);
      called = handlers;
    }
    for (const auto& [token, handler] : called) handler(uninstall);
  }

  void Install(const std::wstring& familyName, std::size_t count = 1) {
    const std::lock_guard guard(mutex);
    installed[familyName] = count;
  }
  void Uninstall(const std::wstring& familyName) {
    const std::lock_guard guard(mutex);
    installed.erase(familyName);
  }

  std::size_t Handlers() const {
    const std::lock_guard guard(mutex);
    return handlers.size();
  }

  FamilyQuery FindByFamily(const std::wstring&) const override { return {}; }
  PathQuery PathByFullName(const std::wstring&) const override { return {}; }
  Platform::Result<std::int32_t> StagedOrigin(const std::wstring&) const override { return 0; }
  Platform::Result<std::uint64_t> Version(const std::wstring&) const override {
    return std::uint64_t{0};
  }
  std::vector<std::wstring> FindForAllUsers(const std::wstring& familyName) const override {
    const std::lock_guard guard(mutex);
    if (queryError != 0) throw winrt::hresult_error(queryError);
    const auto found = installed.find(familyName);
    if (found == installed.end()) return {};
    return std::vector<std::wstring>(found->second, familyName);
  }
  Platform::Result<std::wstring> AccountSid(const std::wstring&) const override {
    return std::wstring();
  }
  std::vector<std::wstring> FindForUser(const std::wstring&, const std::wstring&) const override {
    return {};
  }
  Platform::PackageRegistration Register(const std::wstring&, std::chrono::milliseconds) override {
    return {};
  }
  std::shared_ptr<Platform::PackageCatalog> OpenCatalogForCurrentUser() override {
    onOpen();
    return std::make_shared<Catalog>(*this);
  }

  std::function<void()> onOpen = [] {};
  winrt::hresult queryError = 0;
  winrt::hresult addError = 0;

 private:
  class Catalog final : public Platform::PackageCatalog {
   public:
    explicit Catalog(FakePackageCatalog& packages) : owner(packages) {}

    Token AddUninstalling(UninstallingHandler handler) override {
      const std::lock_guard guard(owner.mutex);
      if (owner.addError != 0) throw winrt::hresult_error(owner.addError);
      owner.handlers.emplace(++owner.lastToken, std::move(handler));
      return owner.lastToken;
    }
    void RemoveUninstalling(Token token) noexcept override {
      const std::lock_guard guard(owner.mutex);
      owner.handlers.erase(token);
    }

   private:
    FakePackageCatalog& owner;
  };

  mutable std::mutex mutex;  // guards what follows
  std::map<std::wstring, std::size_t> installed;
  std::map<std::int64_t, Platform::PackageCatalog::UninstallingHandler> handlers;
  std::int64_t lastToken = 0;
};

}  // namespace Vx::Tests
