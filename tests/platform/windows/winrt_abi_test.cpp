#include "platform/winrt/winrt_abi.h"

#include "platform/winrt/winrt_owners.h"
#include "support/test.h"

namespace Vx::Abi {
namespace {

// Returns the slot of `method`. This compiler's member pointers store its byte offset plus one.
template <typename Method>
int SlotOf(Method method) {
  std::intptr_t stored[2];
  static_assert(sizeof method == sizeof stored);
  std::memcpy(stored, &method, sizeof stored);
  return (stored[0] & 1) != 0 ? static_cast<int>((stored[0] - 1) / std::intptr_t{sizeof(void*)})
                              : -1;
}

template <typename... Methods>
std::vector<int> Slots(Methods... methods) {
  return {SlotOf(methods)...};
}

// The fakes use the same declarations, so only slot numbers reveal a missing or misplaced member.
TEST(WinrtAbiTest, EveryCalledMemberLiesInItsSlot) {
  using Opening = IAppServiceOpenOperation;
  using Sending = IAppServiceSendOperation;
  using Deployment = IDeploymentOperation;
  using Manager = IPackageManager;
  using Connection = IAppServiceConnection;
  using Uninstall = IPackageUninstallingEventArgs;
  EXPECT_THAT(Slots(&Opening::Handler::Invoke, &IDeploymentCompletedHandler::Invoke,
                    &IPackageUninstallingHandler::Invoke),
              ElementsAre(3, 3, 3));
  EXPECT_THAT(Slots(&IAsyncInfo::get_Status, &IAsyncInfo::get_ErrorCode, &IAsyncInfo::Cancel),
              ElementsAre(7, 8, 9));
  EXPECT_THAT(Slots(&Opening::put_Completed, &Sending::GetResults), ElementsAre(6, 8));
  EXPECT_THAT(Slots(&Deployment::put_Completed, &Deployment::GetResults), ElementsAre(8, 10));
  EXPECT_THAT(Slots(&IPackageIterable::First, &IPackageIterator::get_Current,
                    &IPackageIterator::get_HasCurrent, &IPackageIterator::MoveNext),
              ElementsAre(6, 6, 7, 8));
  EXPECT_THAT(Slots(&IStringMap::Lookup, &IStringMap::HasKey, &IStringMap::Insert),
              ElementsAre(6, 8, 10));
  EXPECT_THAT(Slots(&IPropertyValueStatics::CreateString, &IPropertyValue::get_Type,
                    &IPropertyValue::GetString),
              ElementsAre(18, 6, 19));
  EXPECT_THAT(Slots(&IPackage::get_Id, &IPackageId::get_FullName, &IPackageId::get_FamilyName),
              ElementsAre(6, 12, 13));
  EXPECT_THAT(Slots(&IDeploymentResult::get_ErrorText, &IDeploymentResult::get_ExtendedErrorCode),
              ElementsAre(6, 8));
  EXPECT_THAT(Slots(&Manager::FindPackagesByPackageFamilyName,
                    &Manager::FindPackagesByUserSecurityIdPackageFamilyName,
                    &IPackageManager2::RegisterPackageByFullNameAsync),
              ElementsAre(19, 20, 8));
  EXPECT_THAT(Slots(&Uninstall::get_Package, &Uninstall::get_IsComplete), ElementsAre(7, 9));
  EXPECT_THAT(
      Slots(&IPackageCatalog::add_PackageUninstalling, &IPackageCatalog::remove_PackageUninstalling,
            &IPackageCatalogStatics::OpenForCurrentUser),
      ElementsAre(12, 13, 7));
  EXPECT_THAT(Slots(&Connection::put_AppServiceName, &Connection::put_PackageFamilyName,
                    &Connection::OpenAsync, &Connection::SendMessageAsync, &IClosable::Close),
              ElementsAre(7, 9, 10, 11, 6));
  EXPECT_THAT(Slots(&IAppServiceResponse::get_Message, &IAppServiceResponse::get_Status),
              ElementsAre(6, 7));
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
  EXPECT_EQ(Apartment().Result(), S_OK);
  EXPECT_EQ(RoInitialize(RO_INIT_SINGLETHREADED), S_FALSE);  // still single-threaded
  RoUninitialize();
  RoUninitialize();
}

}  // namespace
}  // namespace Vx::Abi
