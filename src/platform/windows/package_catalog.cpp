#include "platform/windows/package_catalog.h"

#include <atomic>
#include <exception>
#include <map>
#include <mutex>
#include <utility>

#include "platform/sessions.h"
#include "platform/thread.h"
#include "platform/windows/capabilities.h"
#include "platform/winrt/winrt_calls.h"

#include <windows.h>

#include <combaseapi.h>

namespace Vx::Platform {

namespace {

// Keeps the process's multithreaded apartment alive. The catalog's threads enter and leave the
// apartment per operation, so without this it would end when the last of them leaves, and destroy
// the catalog.
class MultithreadedApartmentUsage {
 public:
  MultithreadedApartmentUsage() { Check(CoIncrementMTAUsage(&cookie), L"CoIncrementMTAUsage"); }
  MultithreadedApartmentUsage(const MultithreadedApartmentUsage&) = delete;
  MultithreadedApartmentUsage& operator=(const MultithreadedApartmentUsage&) = delete;
  ~MultithreadedApartmentUsage() { CoDecrementMTAUsage(cookie); }

 private:
  CO_MTA_USAGE_COOKIE cookie = nullptr;
};

class Uninstall final : public PackageUninstall {
 public:
  explicit Uninstall(Abi::IPackageUninstallingEventArgs& eventArguments)
      : arguments(eventArguments) {}

  std::wstring FamilyName() const override {
    Abi::ComPtr<Abi::IPackage> package;
    CheckMade(arguments.get_Package(package.Receive()), package,
              L"IPackageUninstallingEventArgs::get_Package");
    Abi::ComPtr<Abi::IPackageId> id;
    CheckMade(package->get_Id(id.Receive()), id, L"IPackage::get_Id");
    Abi::HString name;
    Check(id->get_FamilyName(name.Receive()), L"IPackageId::get_FamilyName");
    return std::wstring(name.View());
  }

  bool IsComplete() const override {
    Abi::Boolean complete = 0;
    Check(arguments.get_IsComplete(&complete), L"IPackageUninstallingEventArgs::get_IsComplete");
    return complete != 0;
  }

 private:
  Abi::IPackageUninstallingEventArgs& arguments;
};

// A handler, shared with its delegate, which the system may still hold after the handler is
// removed. A notification that is already running can still use it. Later ones do nothing.
struct Subscription {
  PackageCatalog::UninstallingHandler handler;
  std::atomic<bool> closed{false};

  HRESULT Notify(Abi::IPackageUninstallingEventArgs* arguments) noexcept {
    if (closed.load() || arguments == nullptr) return S_OK;
    try {
      handler(Uninstall(*arguments));
      return S_OK;
    } catch (const WindowsRuntimeError& error) {
      return error.code();
    } catch (...) {
      return E_FAIL;
    }
  }
};

class WindowsPackageCatalog final : public PackageCatalog {
 public:
  WindowsPackageCatalog() {
    const ApartmentScope apartment;
    const auto statics = FactoryOf<Abi::IPackageCatalogStatics>(Abi::kPackageCatalogClass);
    CheckMade(statics->OpenForCurrentUser(catalog.Receive()), catalog,
              L"IPackageCatalogStatics::OpenForCurrentUser");
  }
  WindowsPackageCatalog(const WindowsPackageCatalog&) = delete;
  WindowsPackageCatalog& operator=(const WindowsPackageCatalog&) = delete;

  ~WindowsPackageCatalog() override {
    for (const auto& [token, subscription] : subscriptions) Remove(token, *subscription);
  }

  Token AddUninstalling(UninstallingHandler handler) override {
    const ApartmentScope apartment;
    auto subscription = std::make_shared<Subscription>();
    subscription->handler = std::move(handler);
    const auto delegate = Abi::MakeDelegate<Abi::IPackageUninstallingHandler>(
        [subscription](Abi::IPackageCatalog*,
                       Abi::IPackageUninstallingEventArgs* arguments) noexcept -> HRESULT {
          return subscription->Notify(arguments);
        });
    // Allocates the entry before registering the handler, so that nothing can fail afterwards.
    SubscriptionMap entry;
    entry.emplace(0, std::move(subscription));
    Abi::EventToken token;
    Check(catalog->add_PackageUninstalling(delegate.Get(), &token),
          L"IPackageCatalog::add_PackageUninstalling");
    auto node = entry.extract(entry.begin());
    node.key() = token.value;
    const std::lock_guard guard(mutex);
    subscriptions.insert(std::move(node));
    return token.value;
  }

  void RemoveUninstalling(Token token) noexcept override {
    SubscriptionMap::node_type entry;
    {
      const std::lock_guard guard(mutex);
      entry = subscriptions.extract(token);
    }
    if (!entry.empty()) Remove(token, *entry.mapped());
  }

 private:
  using SubscriptionMap = std::map<Token, std::shared_ptr<Subscription>>;

  // Closes the subscription first, so that a handler that Windows fails to remove does nothing.
  void Remove(Token token, Subscription& subscription) const noexcept {
    subscription.closed.store(true);
    const Abi::Apartment apartment;
    catalog->remove_PackageUninstalling(Abi::EventToken{token});
  }

  MultithreadedApartmentUsage usage;  // outlives the catalog
  Abi::ComPtr<Abi::IPackageCatalog> catalog;
  std::mutex mutex;
  SubscriptionMap subscriptions;  // guarded by mutex
};

bool InSingleThreadedApartment() {
  APTTYPE type{};
  APTTYPEQUALIFIER qualifier{};
  if (FAILED(CoGetApartmentType(&type, &qualifier))) return false;
  return type == APTTYPE_STA || type == APTTYPE_MAINSTA;
}

// Opens the catalog on a new thread in the multithreaded apartment, under the caller's identity.
std::shared_ptr<PackageCatalog> OpenOnAnotherThread() {
  const auto token = WindowsSessions().ThreadToken();
  if (!token) throw WindowsRuntimeError(HRESULT_FROM_WIN32(token.Error()), L"OpenThreadToken");
  std::shared_ptr<PackageCatalog> catalog;
  std::exception_ptr failure;
  Thread opener([&] {
    try {
      if (*token != nullptr) {
        const ErrorCode error = WindowsSessions().Resume(token->get());
        Check(HRESULT_FROM_WIN32(error), L"SetThreadToken");
      }
      catalog = std::make_shared<WindowsPackageCatalog>();
    } catch (...) {
      failure = std::current_exception();
    }
  });
  opener.Join();
  if (failure) std::rethrow_exception(failure);
  return catalog;
}

}  // namespace

// Watchers and notifications run in the multithreaded apartment. The documentation of
// PackageCatalog does not promise that a catalog can be used outside its own apartment.
std::shared_ptr<PackageCatalog> OpenWindowsPackageCatalog() {
  if (InSingleThreadedApartment()) return OpenOnAnotherThread();
  return std::make_shared<WindowsPackageCatalog>();
}

}  // namespace Vx::Platform
