#include "host/winrt_abi.h"

#include <cstring>

#include "gtest/gtest.h"
#include "host/winrt_owners.h"

namespace Vx::Abi {
namespace {

// The slot that a call through `method` takes: this compiler stores it in the pointer, in bytes and
// with bit 0 set.
template <typename Method>
std::intptr_t SlotOf(Method method) {
  std::intptr_t stored[2];
  static_assert(sizeof method == sizeof stored);
  std::memcpy(stored, &method, sizeof stored);
  return (stored[0] & 1) != 0 ? (stored[0] - 1) / static_cast<std::intptr_t>(sizeof(void*)) : -1;
}

// The fakes share the declarations with the code under test, so only numbers show a missing or
// misplaced member.
TEST(WinrtAbiTest, EveryCalledMemberLiesInItsSlot) {
  const struct {
    const char* name;
    std::intptr_t actual;
    std::intptr_t slot;
  } kCases[] = {
      {"get_Status", SlotOf(&IAsyncInfo::get_Status), 7},
      {"get_ErrorCode", SlotOf(&IAsyncInfo::get_ErrorCode), 8},
      {"Cancel", SlotOf(&IAsyncInfo::Cancel), 9},
      {"operation put_Completed", SlotOf(&IAppServiceOpenOperation::put_Completed), 6},
      {"operation GetResults", SlotOf(&IAppServiceSendOperation::GetResults), 8},
      {"operation handler", SlotOf(&IAppServiceOpenOperation::Handler::Invoke), 3},
      {"deployment put_Completed", SlotOf(&IDeploymentOperation::put_Completed), 8},
      {"deployment GetResults", SlotOf(&IDeploymentOperation::GetResults), 10},
      {"deployment handler", SlotOf(&IDeploymentCompletedHandler::Invoke), 3},
      {"First", SlotOf(&IPackageIterable::First), 6},
      {"get_Current", SlotOf(&IPackageIterator::get_Current), 6},
      {"get_HasCurrent", SlotOf(&IPackageIterator::get_HasCurrent), 7},
      {"MoveNext", SlotOf(&IPackageIterator::MoveNext), 8},
      {"Lookup", SlotOf(&IStringMap::Lookup), 6},
      {"HasKey", SlotOf(&IStringMap::HasKey), 8},
      {"Insert", SlotOf(&IStringMap::Insert), 10},
      {"CreateString", SlotOf(&IPropertyValueStatics::CreateString), 18},
      {"get_Type", SlotOf(&IPropertyValue::get_Type), 6},
      {"GetString", SlotOf(&IPropertyValue::GetString), 19},
      {"get_FullName", SlotOf(&IPackageId::get_FullName), 12},
      {"get_FamilyName", SlotOf(&IPackageId::get_FamilyName), 13},
      {"get_Id", SlotOf(&IPackage::get_Id), 6},
      {"get_ErrorText", SlotOf(&IDeploymentResult::get_ErrorText), 6},
      {"get_ExtendedErrorCode", SlotOf(&IDeploymentResult::get_ExtendedErrorCode), 8},
      {"find for all", SlotOf(&IPackageManager::FindPackagesByPackageFamilyName), 19},
      {"find for one", SlotOf(&IPackageManager::FindPackagesByUserSecurityIdPackageFamilyName), 20},
      {"register", SlotOf(&IPackageManager2::RegisterPackageByFullNameAsync), 8},
      {"get_Package", SlotOf(&IPackageUninstallingEventArgs::get_Package), 7},
      {"get_IsComplete", SlotOf(&IPackageUninstallingEventArgs::get_IsComplete), 9},
      {"uninstalling handler", SlotOf(&IPackageUninstallingHandler::Invoke), 3},
      {"add_PackageUninstalling", SlotOf(&IPackageCatalog::add_PackageUninstalling), 12},
      {"remove_PackageUninstalling", SlotOf(&IPackageCatalog::remove_PackageUninstalling), 13},
      {"OpenForCurrentUser", SlotOf(&IPackageCatalogStatics::OpenForCurrentUser), 7},
      {"put_AppServiceName", SlotOf(&IAppServiceConnection::put_AppServiceName), 7},
      {"put_PackageFamilyName", SlotOf(&IAppServiceConnection::put_PackageFamilyName), 9},
      {"OpenAsync", SlotOf(&IAppServiceConnection::OpenAsync), 10},
      {"SendMessageAsync", SlotOf(&IAppServiceConnection::SendMessageAsync), 11},
      {"get_Message", SlotOf(&IAppServiceResponse::get_Message), 6},
      {"response get_Status", SlotOf(&IAppServiceResponse::get_Status), 7},
      {"IClosable::Close", SlotOf(&IClosable::Close), 6},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.actual, c.slot) << c.name;
}

TEST(DelegateTest, AnswersForItsOwnInterfaceAndForBeingAgileOnly) {
  const auto delegate = MakeDelegate<IPackageUninstallingHandler>(
      [](IPackageCatalog*, IPackageUninstallingEventArgs*) noexcept -> HRESULT { return S_OK; });
  ComPtr<IUnknown> unknown;
  ComPtr<IAgileObject> agile;
  ComPtr<IPackageUninstallingHandler> self;
  ComPtr<IInspectable> inspectable;
  EXPECT_EQ(Query(delegate, unknown), S_OK);
  EXPECT_EQ(Query(delegate, agile), S_OK);
  EXPECT_EQ(Query(delegate, self), S_OK);
  EXPECT_EQ(self.Get(), delegate.Get());
  EXPECT_EQ(Query(delegate, inspectable), E_NOINTERFACE);
  EXPECT_EQ(inspectable.Get(), nullptr);
}

TEST(ApartmentTest, LeavesAThreadOfAnotherApartmentWhereItIs) {
  ASSERT_EQ(RoInitialize(RO_INIT_SINGLETHREADED), S_OK);
  {
    const Apartment apartment;
    EXPECT_EQ(apartment.Result(), S_OK);
  }
  // Still single-threaded: entering it once more is not a change.
  EXPECT_EQ(RoInitialize(RO_INIT_SINGLETHREADED), S_FALSE);
  RoUninitialize();
  RoUninitialize();
}

}  // namespace
}  // namespace Vx::Abi
