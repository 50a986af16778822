#include "platform/windows/packages.h"

#include <atomic>
#include <cstddef>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/sessions.h"
#include "platform/thread.h"
#include "platform/windows/capabilities.h"
#include "platform/windows/deferred_library.h"
#include "platform/windows/file_handle.h"
#include "platform/winrt/winrt_calls.h"

#include <windows.h>

#include <combaseapi.h>

namespace Vx::Platform {

namespace {

constexpr std::uint32_t kFamilyFilter = 0xF0;  // head, direct, resource and bundle packages
constexpr std::uint32_t kInformationBasic = 0;

// In PACKAGE_ID, two 32-bit members precede the version, whose high bits are the major version.
constexpr std::size_t kVersionOffset = 8;

std::uint32_t Status(long code) {
  return static_cast<std::uint32_t>(code);
}

std::wstring FullNameOf(Abi::IPackage& package) {
  Abi::ComPtr<Abi::IPackageId> id;
  CheckMade(package.get_Id(id.Receive()), id, L"IPackage::get_Id");
  Abi::HString name;
  Check(id->get_FullName(name.Receive()), L"IPackageId::get_FullName");
  return std::wstring(name.View());
}

std::vector<std::wstring> FullNamesOf(const Abi::ComPtr<Abi::IPackageIterable>& packages) {
  std::vector<std::wstring> names;
  if (!packages) return names;
  Abi::ComPtr<Abi::IPackageIterator> iterator;
  CheckMade(packages->First(iterator.Receive()), iterator, L"IIterable::First");
  Abi::Boolean more = 0;
  Check(iterator->get_HasCurrent(&more), L"IIterator::get_HasCurrent");
  while (more != 0) {
    Abi::ComPtr<Abi::IPackage> package;
    CheckMade(iterator->get_Current(package.Receive()), package, L"IIterator::get_Current");
    names.push_back(FullNameOf(*package.Get()));
    more = 0;
    Check(iterator->MoveNext(&more), L"IIterator::MoveNext");
  }
  return names;
}

// Reads as much as possible of the deployment's report. A failed operation might not have one.
void ReadReport(Abi::IDeploymentOperation& operation, PackageRegistration& registration) {
  Abi::ComPtr<Abi::IDeploymentResult> report;
  const HRESULT read = operation.GetResults(report.Receive());
  if (FAILED(read) || !report) {
    if (SUCCEEDED(registration.result)) registration.result = FAILED(read) ? read : E_UNEXPECTED;
    return;
  }
  if (SUCCEEDED(registration.result)) {
    HRESULT extended = S_OK;
    const HRESULT asked = report->get_ExtendedErrorCode(&extended);
    registration.result = FAILED(asked) ? asked : extended;
  }
  if (SUCCEEDED(registration.result)) return;
  Abi::HString text;
  if (SUCCEEDED(report->get_ErrorText(text.Receive()))) registration.errorText = text.View();
}

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

class RealPackages final : public Packages {
 public:
  explicit RealPackages(const AppModelFunctions& appModel) : functions(appModel) {}

  FamilyQuery FindByFamily(const std::wstring& familyName) const override {
    Packages::FamilyQuery query;
    if (functions.findPackagesByPackageFamily == nullptr) {
      query.sizeError = ERROR_PROC_NOT_FOUND;
      return query;
    }
    std::uint32_t count = 0;
    std::uint32_t length = 0;
    query.sizeError = Status(functions.findPackagesByPackageFamily(
        familyName.c_str(), kFamilyFilter, &count, nullptr, &length, nullptr, nullptr));
    query.bufferLength = length;
    if (length == 0) return query;

    std::vector<wchar_t*> names(count);
    std::vector<wchar_t> buffer(length);
    query.error = Status(functions.findPackagesByPackageFamily(
        familyName.c_str(), kFamilyFilter, &count, names.data(), &length, buffer.data(), nullptr));
    if (query.error != ERROR_SUCCESS) return query;
    for (std::uint32_t i = 0; i < count && i < names.size(); ++i) {
      if (names[i] != nullptr) query.fullNames.emplace_back(names[i]);
    }
    return query;
  }

  PathQuery PathByFullName(const std::wstring& fullName) const override {
    Packages::PathQuery query;
    if (functions.getPackagePathByFullName == nullptr) {
      query.sizeError = ERROR_PROC_NOT_FOUND;
      return query;
    }
    std::uint32_t length = 0;
    query.sizeError =
        Status(functions.getPackagePathByFullName(fullName.c_str(), &length, nullptr));
    if (query.sizeError != ERROR_INSUFFICIENT_BUFFER || length == 0) return query;

    query.sizeError = ERROR_SUCCESS;
    std::vector<wchar_t> path(length);
    query.error =
        Status(functions.getPackagePathByFullName(fullName.c_str(), &length, path.data()));
    if (query.error == ERROR_SUCCESS) {
      path.back() = L'\0';
      query.path = path.data();
    }
    return query;
  }

  Result<std::int32_t> StagedOrigin(const std::wstring& fullName) const override {
    if (functions.getStagedPackageOrigin == nullptr) return Failure(ERROR_PROC_NOT_FOUND);
    std::int32_t origin = 0;
    const long status = functions.getStagedPackageOrigin(fullName.c_str(), &origin);
    if (status != ERROR_SUCCESS) return Failure(Status(status));
    return origin;
  }

  Result<std::uint64_t> Version(const std::wstring& fullName) const override {
    if (functions.packageIdFromFullName == nullptr) return Failure(ERROR_PROC_NOT_FOUND);
    std::uint32_t length = 0;  // bytes
    long status =
        functions.packageIdFromFullName(fullName.c_str(), kInformationBasic, &length, nullptr);
    if (status != ERROR_INSUFFICIENT_BUFFER) {
      return Failure(status != ERROR_SUCCESS ? Status(status) : ERROR_INVALID_DATA);
    }
    std::vector<std::uint8_t> buffer(length);
    status = functions.packageIdFromFullName(fullName.c_str(), kInformationBasic, &length,
                                             buffer.data());
    if (status != ERROR_SUCCESS) return Failure(Status(status));
    std::uint64_t version = 0;
    if (buffer.size() < kVersionOffset + sizeof version) return Failure(ERROR_INVALID_DATA);
    std::memcpy(&version, buffer.data() + kVersionOffset, sizeof version);
    return version;
  }

  std::vector<std::wstring> FindForAllUsers(const std::wstring& familyName) const override {
    const ApartmentScope apartment;
    const auto manager = Activate<Abi::IPackageManager>(Abi::kPackageManagerClass);
    const Abi::HString family = MakeString(familyName);
    Abi::ComPtr<Abi::IPackageIterable> packages;
    Check(manager->FindPackagesByPackageFamilyName(family.Get(), packages.Receive()),
          L"IPackageManager::FindPackagesByPackageFamilyName");
    return FullNamesOf(packages);
  }

  Result<std::wstring> AccountSid(const std::wstring& account) const override {
    DWORD sidBytes = 0;
    DWORD domainLength = 0;
    SID_NAME_USE kind = SidTypeUnknown;
    LookupAccountNameW(nullptr, account.c_str(), nullptr, &sidBytes, nullptr, &domainLength, &kind);
    const DWORD sizeError = GetLastError();
    if (sizeError != ERROR_INSUFFICIENT_BUFFER) return Failure(sizeError);

    std::vector<std::byte> sid(sidBytes);
    std::vector<wchar_t> domain(domainLength);
    if (LookupAccountNameW(nullptr, account.c_str(), sid.data(), &sidBytes, domain.data(),
                           &domainLength, &kind) == FALSE) {
      return Failure(GetLastError());
    }
    // The name may also resolve to a domain or a computer, which is neither a user nor a group.
    if (kind == SidTypeDomain || kind > SidTypeWellKnownGroup) return Failure(ERROR_NONE_MAPPED);
    std::wstring text = SidText(sid.data());
    if (text.empty()) return Failure(GetLastError());
    return text;
  }

  std::vector<std::wstring> FindForUser(const std::wstring& sid,
                                        const std::wstring& familyName) const override {
    const ApartmentScope apartment;
    const auto manager = Activate<Abi::IPackageManager>(Abi::kPackageManagerClass);
    const Abi::HString user = MakeString(sid);
    const Abi::HString family = MakeString(familyName);
    Abi::ComPtr<Abi::IPackageIterable> packages;
    Check(manager->FindPackagesByUserSecurityIdPackageFamilyName(user.Get(), family.Get(),
                                                                 packages.Receive()),
          L"IPackageManager::FindPackagesByUserSecurityIdPackageFamilyName");
    return FullNamesOf(packages);
  }

  PackageRegistration Register(const std::wstring& fullName,
                               std::chrono::milliseconds limit) override {
    const ApartmentScope apartment;
    const auto manager = Activate<Abi::IPackageManager2>(Abi::kPackageManagerClass);
    const Abi::HString name = MakeString(fullName);
    Abi::ComPtr<Abi::IDeploymentOperation> operation;
    CheckMade(manager->RegisterPackageByFullNameAsync(
                  name.Get(), nullptr, Abi::DeploymentOptions::None, operation.Receive()),
              operation, L"IPackageManager2::RegisterPackageByFullNameAsync");
    const AsyncOutcome outcome = Await(operation, limit);
    PackageRegistration registration{.result = outcome.result, .errorText = {}};
    if (outcome.ended) ReadReport(*operation.Get(), registration);
    return registration;
  }

  std::shared_ptr<PackageCatalog> OpenCatalogForCurrentUser() override {
    return OpenWindowsPackageCatalog();
  }

 private:
  AppModelFunctions functions;
};

}  // namespace

// Watchers and notifications run in the multithreaded apartment. The documentation of
// PackageCatalog does not promise that a catalog can be used outside its own apartment.
std::shared_ptr<PackageCatalog> OpenWindowsPackageCatalog() {
  if (InSingleThreadedApartment()) return OpenOnAnotherThread();
  return std::make_shared<WindowsPackageCatalog>();
}

AppModelFunctions ResolveAppModel() noexcept {
  using Functions = AppModelFunctions;
  constexpr wchar_t kKernel32[] = L"kernel32.dll";
  return {SystemFunction<Functions::FindByFamily>(kKernel32, "FindPackagesByPackageFamily"),
          SystemFunction<Functions::PathByFullName>(kKernel32, "GetPackagePathByFullName"),
          // kernel32 does not forward this one.
          SystemFunction<Functions::StagedOrigin>(L"kernelbase.dll", "GetStagedPackageOrigin"),
          SystemFunction<Functions::IdFromFullName>(kKernel32, "PackageIdFromFullName")};
}

std::unique_ptr<Packages> MakeWindowsPackages(const AppModelFunctions& functions) {
  return std::make_unique<RealPackages>(functions);
}

Packages& WindowsPackages() {
  static RealPackages packages(ResolveAppModel());
  return packages;
}

}  // namespace Vx::Platform
