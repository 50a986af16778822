#include "platform/windows/package_deployment.h"

#include <memory>
#include <system_error>

#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/unique_handle.h"
#include "platform/windows/winrt_calls.h"

#include <windows.h>

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

// The event that a deployment's end sets. Shared with the completion handler, which the system may
// still call after we stopped waiting.
SharedHandle MakeCompletionEvent() {
  UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!event) throw WindowsRuntimeError(HRESULT_FROM_WIN32(GetLastError()), L"CreateEvent");
  return Share(std::move(event));
}

void SignalWhenDone(Abi::IDeploymentOperation& operation, const SharedHandle& done) {
  const auto handler = Abi::MakeDelegate<Abi::IDeploymentCompletedHandler>(
      [done](Abi::IDeploymentOperation*, Abi::AsyncStatus) noexcept -> HRESULT {
        SetEvent(done.get());
        return S_OK;
      });
  Check(operation.put_Completed(handler.Get()), L"IAsyncOperationWithProgress::put_Completed");
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

PackageRegistration OutcomeOf(Abi::IDeploymentOperation& operation, Abi::IAsyncInfo& info) {
  PackageRegistration registration;
  Abi::AsyncStatus status = Abi::AsyncStatus::Error;
  Check(info.get_Status(&status), L"IAsyncInfo::get_Status");
  if (status != Abi::AsyncStatus::Completed) {
    HRESULT code = S_OK;
    Check(info.get_ErrorCode(&code), L"IAsyncInfo::get_ErrorCode");
    const HRESULT unexplained =
        status == Abi::AsyncStatus::Canceled ? HRESULT_FROM_WIN32(ERROR_CANCELLED) : E_FAIL;
    registration.result = FAILED(code) ? code : unexplained;
  }
  ReadReport(operation, registration);
  return registration;
}

}  // namespace

std::vector<std::wstring> FamilyPackagesOfMachine(const std::wstring& familyName) {
  const ApartmentScope apartment;
  const auto manager = ActivateClass<Abi::IPackageManager>(Abi::kPackageManagerClass);
  const Abi::HString family = MakeString(familyName);
  Abi::ComPtr<Abi::IPackageIterable> packages;
  Check(manager->FindPackagesByPackageFamilyName(family.Get(), packages.Receive()),
        L"IPackageManager::FindPackagesByPackageFamilyName");
  return FullNamesOf(packages);
}

std::vector<std::wstring> FamilyPackagesOfUser(const std::wstring& sid,
                                               const std::wstring& familyName) {
  const ApartmentScope apartment;
  const auto manager = ActivateClass<Abi::IPackageManager>(Abi::kPackageManagerClass);
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
  const auto manager = ActivateClass<Abi::IPackageManager2>(Abi::kPackageManagerClass);
  const Abi::HString name = MakeString(fullName);
  Abi::ComPtr<Abi::IDeploymentOperation> operation;
  const HRESULT started = manager->RegisterPackageByFullNameAsync(
      name.Get(), nullptr, Abi::DeploymentOptions::None, operation.Receive());
  CheckMade(started, operation, L"IPackageManager2::RegisterPackageByFullNameAsync");
  Abi::ComPtr<Abi::IAsyncInfo> info;
  Check(Abi::Query(operation, info), L"IAsyncInfo");

  const SharedHandle done = MakeCompletionEvent();
  SignalWhenDone(*operation.Get(), done);
  const WaitResult wait = CurrentMachine().clock->Wait(done.get(), limit);
  if (wait.outcome == WaitOutcome::Signalled) return OutcomeOf(*operation.Get(), *info.Get());

  // Nobody will look at the outcome any more. A deployment that cannot be cancelled runs on.
  info->Cancel();
  PackageRegistration registration;
  registration.result = HRESULT_FROM_WIN32(
      wait.outcome == WaitOutcome::TimedOut ? DWORD{ERROR_TIMEOUT} : DWORD{wait.lastError});
  return registration;
}

}  // namespace Vx::Platform
