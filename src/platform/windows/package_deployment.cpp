#include "platform/windows/package_deployment.h"

#include "platform/winrt/winrt_calls.h"

namespace Vx::Platform {

namespace {

std::wstring FullNameOf(Abi::IPackage& package) {
  Abi::ComPtr<Abi::IPackageId> id;
  const HRESULT result = package.get_Id(id.Receive());
  CheckMade(result, id, L"IPackage::get_Id");
  Abi::HString name;
  Check(id->get_FullName(name.Receive()), L"IPackageId::get_FullName");
  return std::wstring(name.View());
}

std::vector<std::wstring> FullNamesOf(const Abi::ComPtr<Abi::IPackageIterable>& packages) {
  std::vector<std::wstring> names;
  if (!packages) return names;
  Abi::ComPtr<Abi::IPackageIterator> iterator;
  const HRESULT result = packages->First(iterator.Receive());
  CheckMade(result, iterator, L"IIterable::First");
  Abi::Boolean more = 0;
  Check(iterator->get_HasCurrent(&more), L"IIterator::get_HasCurrent");
  while (more != 0) {
    Abi::ComPtr<Abi::IPackage> package;
    const HRESULT current = iterator->get_Current(package.Receive());
    CheckMade(current, package, L"IIterator::get_Current");
    names.push_back(FullNameOf(*package.Get()));
    more = 0;
    Check(iterator->MoveNext(&more), L"IIterator::MoveNext");
  }
  return names;
}

// Reads the deployment's own report, as far as it gives one: a failed operation may refuse it.
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

}  // namespace

std::vector<std::wstring> FamilyPackagesOfMachine(const std::wstring& familyName) {
  const ApartmentScope apartment;
  const auto manager = Activate<Abi::IPackageManager>(Abi::kPackageManagerClass);
  const Abi::HString family = MakeString(familyName);
  Abi::ComPtr<Abi::IPackageIterable> packages;
  Check(manager->FindPackagesByPackageFamilyName(family.Get(), packages.Receive()),
        L"IPackageManager::FindPackagesByPackageFamilyName");
  return FullNamesOf(packages);
}

std::vector<std::wstring> FamilyPackagesOfUser(const std::wstring& sid,
                                               const std::wstring& familyName) {
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

PackageRegistration RegisterStagedPackage(const std::wstring& fullName,
                                          std::chrono::milliseconds limit) {
  const ApartmentScope apartment;
  const auto manager = Activate<Abi::IPackageManager2>(Abi::kPackageManagerClass);
  const Abi::HString name = MakeString(fullName);
  Abi::ComPtr<Abi::IDeploymentOperation> operation;
  const HRESULT started = manager->RegisterPackageByFullNameAsync(
      name.Get(), nullptr, Abi::DeploymentOptions::None, operation.Receive());
  CheckMade(started, operation, L"IPackageManager2::RegisterPackageByFullNameAsync");
  const AsyncOutcome outcome = Await(operation, limit);
  PackageRegistration registration{.result = outcome.result, .errorText = {}};
  if (outcome.ended) ReadReport(*operation.Get(), registration);
  return registration;
}

}  // namespace Vx::Platform
