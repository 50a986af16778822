#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/hresult_error.h"
#include "platform/packages.h"
#include "support/fake_console.h"

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

// A console with packages of all users and one catalog, which tells its handlers what the test
// says. As a package manager alone it may be used by any thread.
class FakePackageCatalog final : public FakeConsole {
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

  // How many packages of the family there are.
  void SetPackages(const std::wstring& familyName, std::size_t count) {
    const std::lock_guard guard(mutex);
    packages[familyName] = count;
  }

  std::size_t Handlers() const {
    const std::lock_guard guard(mutex);
    return handlers.size();
  }

  std::vector<std::wstring> FindForAllUsers(const std::wstring& familyName) const override {
    const std::lock_guard guard(mutex);
    if (queryError != 0) throw winrt::hresult_error(queryError);
    const auto found = packages.find(familyName);
    return std::vector<std::wstring>(found != packages.end() ? found->second : 0, familyName);
  }
  std::shared_ptr<Platform::PackageCatalog> OpenCatalogForCurrentUser() override {
    openedAsUser = acting;
    return std::make_shared<Catalog>(*this);
  }

  winrt::hresult queryError = 0;
  winrt::hresult addError = 0;
  std::atomic<bool> openedAsUser{false};

 private:
  class Catalog final : public Platform::PackageCatalog {
   public:
    explicit Catalog(FakePackageCatalog& console) : owner(console) {}

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
  std::map<std::wstring, std::size_t> packages;
  std::map<std::int64_t, Platform::PackageCatalog::UninstallingHandler> handlers;
  std::int64_t lastToken = 0;
};

}  // namespace Vx::Tests
