#pragma once

#include "events/package_event_manager.h"
#include "storage/request_manager.h"
#include "support/machine_test.h"
#include "support/test.h"

namespace Vx::Tests {

constexpr wchar_t kFamily[] = L"App_abc";

inline std::wstring PackageRequest(const std::wstring& event,
                                   const std::wstring& family = kFamily) {
  return L"{\"catalogEvent\":" + event + LR"(,"catalogAction":2,"packageFamilyName":")" + family +
         LR"(","catalogActionParams":{"packageFamilyName":"f","appServiceName":"s","payload":{}}})";
}

// The test supplies the completion state. `arrived` runs when the family name is read.
class FakeUninstall final : public Platform::PackageUninstall {
 public:
  explicit FakeUninstall(
      std::wstring family = kFamily, std::function<bool()> complete = [] { return true; },
      std::function<void()> arrived = [] {})
      : familyName(std::move(family)),
        isComplete(std::move(complete)),
        arrives(std::move(arrived)) {}

  std::wstring FamilyName() const override {
    arrives();
    return familyName;
  }
  bool IsComplete() const override { return isComplete(); }

 private:
  std::wstring familyName;
  std::function<bool()> isComplete;
  std::function<void()> arrives;
};

// The package belongs to bob, so that uninstalling it does not notify ann's catalogs.
class PackageEventFixture : public StoreTest {
 protected:
  PackageEventFixture() {
    machine.users.Add(L"bob");
    Install();
  }
  ~PackageEventFixture() override {
    Tessel::Server::Services::Orvane::PackageCatalogEventManager::clear_events();
  }

  void Install() { machine.packages.Install({kFamily, L"App_1", {}}, L"bob"); }
  void Remove() {
    machine.packages.Uninstall(kFamily, L"bob", std::chrono::milliseconds(0));
    machine.clock.Settle();
  }
  void Notify(
      const std::wstring& family, std::function<bool()> complete = [] { return true; }) {
    machine.packages.Notify(L"ann", FakeUninstall(family, std::move(complete)));
  }
  static std::wstring Stored() {
    using namespace Tessel::Server::Services::Orvane;
    return RequestManager(kServiceDocument, kPackageSubscriptions).StoredList();
  }
};

}  // namespace Vx::Tests
