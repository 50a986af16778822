#pragma once

#include <cstdint>

#include <roapi.h>
#include <windows.h>
#include <winstring.h>

// The Windows Runtime interfaces in use, in Windows' layout. Slots 0 to 5 belong to IUnknown and
// IInspectable. The other members follow in the order of their slots, up to the last one used. The
// caller owns every returned HSTRING and interface. Declared by hand because the compiler's headers
// lack most of them and get several wrong (a four-byte boolean, a wrong identifier).

// Adding the virtual destructor that these warnings ask for would take a slot.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// A member that is never called and only reserves its slot, so it has no parameters.
#define VX_PLACE(name)                       \
  virtual HRESULT STDMETHODCALLTYPE name() { \
    return E_NOTIMPL;                        \
  }

namespace Vx::Abi {

using Boolean = unsigned char;  // one byte, as in the ABI: a call writes no more

struct EventToken {
  std::int64_t value = 0;
};

template <typename T>
const GUID& IidOf() noexcept {
  if constexpr (requires { T::kIid; }) {
    return T::kIid;
  } else {
    return __uuidof(T);
  }
}

enum class AsyncStatus : std::int32_t { Started = 0, Completed = 1, Canceled = 2, Error = 3 };

struct IAsyncInfo : IInspectable {
  static constexpr GUID kIid{
      0x00000036, 0x0000, 0x0000, {0xc0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

  VX_PLACE(get_Id)
  virtual HRESULT STDMETHODCALLTYPE get_Status(AsyncStatus* status) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ErrorCode(HRESULT* errorCode) = 0;
  virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
};

template <typename T>
struct IAsyncOperation;

// A delegate does not derive from IInspectable, so Invoke is slot 3.
template <typename T>
struct IAsyncOperationCompletedHandler : IUnknown {
  using Sender = IAsyncOperation<T>*;
  using Argument = AsyncStatus;
  static const GUID kIid;

  virtual HRESULT STDMETHODCALLTYPE Invoke(Sender operation, Argument status) = 0;
};

template <typename T>
struct IAsyncOperation : IInspectable {
  using Handler = IAsyncOperationCompletedHandler<T>;
  static const GUID kIid;

  virtual HRESULT STDMETHODCALLTYPE put_Completed(Handler* handler) = 0;
  VX_PLACE(get_Completed)
  virtual HRESULT STDMETHODCALLTYPE GetResults(T* results) = 0;
};

template <typename T>
struct IIterator : IInspectable {
  static const GUID kIid;

  virtual HRESULT STDMETHODCALLTYPE get_Current(T* current) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_HasCurrent(Boolean* hasCurrent) = 0;
  virtual HRESULT STDMETHODCALLTYPE MoveNext(Boolean* hasCurrent) = 0;
};

template <typename T>
struct IIterable : IInspectable {
  static const GUID kIid;

  virtual HRESULT STDMETHODCALLTYPE First(IIterator<T>** first) = 0;
};

// IMap<String, Object>.
struct IStringMap : IInspectable {
  static constexpr GUID kIid{
      0x1b0d3570, 0x0877, 0x5ec2, {0x8a, 0x2c, 0x3b, 0x95, 0x39, 0x50, 0x6a, 0xca}};

  virtual HRESULT STDMETHODCALLTYPE Lookup(HSTRING key, IInspectable** value) = 0;
  VX_PLACE(get_Size)
  virtual HRESULT STDMETHODCALLTYPE HasKey(HSTRING key, Boolean* found) = 0;
  VX_PLACE(GetView)
  virtual HRESULT STDMETHODCALLTYPE Insert(HSTRING key, IInspectable* value, Boolean* replaced) = 0;
};

// The default interface of a ValueSet. Has no methods of its own.
struct IPropertySet : IInspectable {
  static constexpr GUID kIid{
      0x8a43ed9f, 0xf4e6, 0x4421, {0xac, 0xf9, 0x1d, 0xab, 0x29, 0x86, 0x82, 0x0c}};
};

inline constexpr wchar_t kValueSetClass[] = L"Windows.Foundation.Collections.ValueSet";

inline constexpr wchar_t kPropertyValueClass[] = L"Windows.Foundation.PropertyValue";

enum class PropertyType : std::int32_t { Empty = 0, String = 12 };

struct IPropertyValueStatics : IInspectable {
  static constexpr GUID kIid{
      0x629bdbc8, 0xd932, 0x4ff4, {0x96, 0xb9, 0x8d, 0x96, 0xc5, 0xc1, 0xe8, 0x58}};

  VX_PLACE(CreateEmpty)
  VX_PLACE(CreateUInt8)
  VX_PLACE(CreateInt16)
  VX_PLACE(CreateUInt16)
  VX_PLACE(CreateInt32)
  VX_PLACE(CreateUInt32)
  VX_PLACE(CreateInt64)
  VX_PLACE(CreateUInt64)
  VX_PLACE(CreateSingle)
  VX_PLACE(CreateDouble)
  VX_PLACE(CreateChar16)
  VX_PLACE(CreateBoolean)
  virtual HRESULT STDMETHODCALLTYPE CreateString(HSTRING value, IInspectable** result) = 0;
};

struct IPropertyValue : IInspectable {
  static constexpr GUID kIid{
      0x4bd682dd, 0x7554, 0x40e9, {0x9a, 0x9b, 0x82, 0x65, 0x4e, 0xde, 0x7e, 0x62}};

  virtual HRESULT STDMETHODCALLTYPE get_Type(PropertyType* type) = 0;
  VX_PLACE(get_IsNumericScalar)
  VX_PLACE(GetUInt8)
  VX_PLACE(GetInt16)
  VX_PLACE(GetUInt16)
  VX_PLACE(GetInt32)
  VX_PLACE(GetUInt32)
  VX_PLACE(GetInt64)
  VX_PLACE(GetUInt64)
  VX_PLACE(GetSingle)
  VX_PLACE(GetDouble)
  VX_PLACE(GetChar16)
  VX_PLACE(GetBoolean)
  virtual HRESULT STDMETHODCALLTYPE GetString(HSTRING* value) = 0;
};

struct IPackageId : IInspectable {
  static constexpr GUID kIid{
      0x1adb665e, 0x37c7, 0x4790, {0x99, 0x80, 0xdd, 0x7a, 0xe7, 0x4e, 0x8b, 0xb2}};

  VX_PLACE(get_Name)
  VX_PLACE(get_Version)
  VX_PLACE(get_Architecture)
  VX_PLACE(get_ResourceId)
  VX_PLACE(get_Publisher)
  VX_PLACE(get_PublisherId)
  virtual HRESULT STDMETHODCALLTYPE get_FullName(HSTRING* fullName) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_FamilyName(HSTRING* familyName) = 0;
};

struct IPackage : IInspectable {
  static constexpr GUID kIid{
      0x163c792f, 0xbd75, 0x413c, {0xbf, 0x23, 0xb1, 0xfe, 0x7b, 0x95, 0xd8, 0x25}};

  virtual HRESULT STDMETHODCALLTYPE get_Id(IPackageId** id) = 0;
};

using IPackageIterable = IIterable<IPackage*>;
using IPackageIterator = IIterator<IPackage*>;

template <>
inline constexpr GUID IPackageIterable::kIid{
    0x69ad6aa7, 0x0c49, 0x5f27, {0xa5, 0xeb, 0xef, 0x4d, 0x59, 0x46, 0x7b, 0x6d}};
template <>
inline constexpr GUID IPackageIterator::kIid{
    0x0217f069, 0x025c, 0x5ee6, {0xa8, 0x7f, 0xe7, 0x82, 0xe3, 0xb6, 0x23, 0xae}};

inline constexpr wchar_t kPackageManagerClass[] = L"Windows.Management.Deployment.PackageManager";

enum class DeploymentOptions : std::uint32_t { None = 0 };

struct IDeploymentResult : IInspectable {
  static constexpr GUID kIid{
      0x2563b9ae, 0xb77d, 0x4c1f, {0x8a, 0x7b, 0x20, 0xe6, 0xad, 0x51, 0x5e, 0xf3}};

  virtual HRESULT STDMETHODCALLTYPE get_ErrorText(HSTRING* text) = 0;
  VX_PLACE(get_ActivityId)
  virtual HRESULT STDMETHODCALLTYPE get_ExtendedErrorCode(HRESULT* errorCode) = 0;
};

struct IDeploymentOperation;

// AsyncOperationWithProgressCompletedHandler<DeploymentResult, DeploymentProgress>.
struct IDeploymentCompletedHandler : IUnknown {
  using Sender = IDeploymentOperation*;
  using Argument = AsyncStatus;
  static constexpr GUID kIid{
      0x6e1c7129, 0x61e0, 0x5d88, {0x9f, 0xd4, 0xf3, 0xce, 0x65, 0xa0, 0x57, 0x19}};

  virtual HRESULT STDMETHODCALLTYPE Invoke(Sender operation, Argument status) = 0;
};

// IAsyncOperationWithProgress<DeploymentResult, DeploymentProgress>.
struct IDeploymentOperation : IInspectable {
  using Handler = IDeploymentCompletedHandler;
  static constexpr GUID kIid{
      0x5a97aab7, 0xb6ea, 0x55ac, {0xa5, 0xdc, 0xd5, 0xb1, 0x64, 0xd9, 0x4e, 0x94}};

  VX_PLACE(put_Progress)
  VX_PLACE(get_Progress)
  virtual HRESULT STDMETHODCALLTYPE put_Completed(IDeploymentCompletedHandler* handler) = 0;
  VX_PLACE(get_Completed)
  virtual HRESULT STDMETHODCALLTYPE GetResults(IDeploymentResult** result) = 0;
};

struct IPackageManager : IInspectable {
  static constexpr GUID kIid{
      0x9a7d4b65, 0x5e8f, 0x4fc7, {0xa2, 0xe5, 0x7f, 0x69, 0x25, 0xcb, 0x8b, 0x53}};

  VX_PLACE(AddPackageAsync)
  VX_PLACE(UpdatePackageAsync)
  VX_PLACE(RemovePackageAsync)
  VX_PLACE(StagePackageAsync)
  VX_PLACE(RegisterPackageAsync)
  VX_PLACE(FindPackages)
  VX_PLACE(FindPackagesByUserSecurityId)
  VX_PLACE(FindPackagesByNamePublisher)
  VX_PLACE(FindPackagesByUserSecurityIdNamePublisher)
  VX_PLACE(FindUsers)
  VX_PLACE(SetPackageState)
  VX_PLACE(FindPackageByPackageFullName)
  VX_PLACE(CleanupPackageForUserAsync)
  virtual HRESULT STDMETHODCALLTYPE
  FindPackagesByPackageFamilyName(HSTRING familyName, IPackageIterable** packages) = 0;
  virtual HRESULT STDMETHODCALLTYPE FindPackagesByUserSecurityIdPackageFamilyName(
      HSTRING sid, HSTRING familyName, IPackageIterable** packages) = 0;
};

struct IPackageManager2 : IInspectable {
  static constexpr GUID kIid{
      0xf7aad08d, 0x0840, 0x46f2, {0xb5, 0xd8, 0xca, 0xd4, 0x76, 0x93, 0xa0, 0x95}};

  VX_PLACE(RemovePackageWithOptionsAsync)
  VX_PLACE(StagePackageWithOptionsAsync)
  // `dependencies` may be null.
  virtual HRESULT STDMETHODCALLTYPE
  RegisterPackageByFullNameAsync(HSTRING fullName, IInspectable* dependencies,
                                 DeploymentOptions options, IDeploymentOperation** operation) = 0;
};

inline constexpr wchar_t kPackageCatalogClass[] = L"Windows.ApplicationModel.PackageCatalog";

struct IPackageUninstallingEventArgs : IInspectable {
  static constexpr GUID kIid{
      0x4443aa52, 0xab22, 0x44cd, {0x82, 0xbb, 0x4e, 0xc9, 0xb8, 0x27, 0x36, 0x7a}};

  VX_PLACE(get_ActivityId)
  virtual HRESULT STDMETHODCALLTYPE get_Package(IPackage** package) = 0;
  VX_PLACE(get_Progress)
  virtual HRESULT STDMETHODCALLTYPE get_IsComplete(Boolean* complete) = 0;
};

struct IPackageCatalog;

// TypedEventHandler<PackageCatalog, PackageUninstallingEventArgs>.
struct IPackageUninstallingHandler : IUnknown {
  using Sender = IPackageCatalog*;
  using Argument = IPackageUninstallingEventArgs*;
  static constexpr GUID kIid{
      0xbd636cf1, 0x541f, 0x53ea, {0x8e, 0xfc, 0xe1, 0x60, 0x4a, 0x39, 0x5b, 0x1a}};

  virtual HRESULT STDMETHODCALLTYPE Invoke(Sender catalog, Argument arguments) = 0;
};

struct IPackageCatalog : IInspectable {
  static constexpr GUID kIid{
      0x230a3751, 0x9de3, 0x4445, {0xbe, 0x74, 0x91, 0xfb, 0x32, 0x5a, 0xbe, 0xfe}};

  VX_PLACE(add_PackageStaging)
  VX_PLACE(remove_PackageStaging)
  VX_PLACE(add_PackageInstalling)
  VX_PLACE(remove_PackageInstalling)
  VX_PLACE(add_PackageUpdating)
  VX_PLACE(remove_PackageUpdating)
  virtual HRESULT STDMETHODCALLTYPE add_PackageUninstalling(IPackageUninstallingHandler* handler,
                                                            EventToken* token) = 0;
  virtual HRESULT STDMETHODCALLTYPE remove_PackageUninstalling(EventToken token) = 0;
};

struct IPackageCatalogStatics : IInspectable {
  static constexpr GUID kIid{
      0xa18c9696, 0xe65b, 0x4634, {0xba, 0x21, 0x5e, 0x63, 0xeb, 0x72, 0x44, 0xa7}};

  VX_PLACE(OpenForCurrentPackage)
  virtual HRESULT STDMETHODCALLTYPE OpenForCurrentUser(IPackageCatalog** catalog) = 0;
};

inline constexpr wchar_t kAppServiceConnectionClass[] =
    L"Windows.ApplicationModel.AppService.AppServiceConnection";

enum class AppServiceConnectionStatus : std::int32_t { Success = 0 };
enum class AppServiceResponseStatus : std::int32_t { Success = 0 };

struct IAppServiceResponse : IInspectable {
  static constexpr GUID kIid{
      0x8d503cec, 0x9aa3, 0x4e68, {0x95, 0x59, 0x9d, 0xe6, 0x3e, 0x37, 0x2c, 0xe4}};

  virtual HRESULT STDMETHODCALLTYPE get_Message(IPropertySet** message) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Status(AppServiceResponseStatus* status) = 0;
};

using IAppServiceOpenOperation = IAsyncOperation<AppServiceConnectionStatus>;
using IAppServiceSendOperation = IAsyncOperation<IAppServiceResponse*>;

template <>
inline constexpr GUID IAppServiceOpenOperation::kIid{
    0x0d0e6663, 0x2639, 0x5a9a, {0x9c, 0xbc, 0x30, 0xd7, 0xd4, 0xce, 0x53, 0x3b}};
template <>
inline constexpr GUID IAppServiceOpenOperation::Handler::kIid{
    0xb6c6bbf2, 0x72ca, 0x5799, {0xa6, 0x51, 0xd1, 0x99, 0x06, 0x70, 0x09, 0x7b}};
template <>
inline constexpr GUID IAppServiceSendOperation::kIid{
    0x48755a7c, 0xc88f, 0x5ef0, {0x9b, 0x4c, 0x87, 0x6f, 0xcc, 0x26, 0x10, 0xb4}};
template <>
inline constexpr GUID IAppServiceSendOperation::Handler::kIid{
    0x7ea7d7ec, 0xe164, 0x52c3, {0x8e, 0x32, 0xbb, 0xa7, 0x12, 0x6d, 0x90, 0x28}};

struct IAppServiceConnection : IInspectable {
  static constexpr GUID kIid{
      0x9dd474a2, 0x871f, 0x4d52, {0x89, 0xa9, 0x9e, 0x09, 0x05, 0x31, 0xbd, 0x27}};

  VX_PLACE(get_AppServiceName)
  virtual HRESULT STDMETHODCALLTYPE put_AppServiceName(HSTRING name) = 0;
  VX_PLACE(get_PackageFamilyName)
  virtual HRESULT STDMETHODCALLTYPE put_PackageFamilyName(HSTRING name) = 0;
  virtual HRESULT STDMETHODCALLTYPE OpenAsync(IAppServiceOpenOperation** operation) = 0;
  virtual HRESULT STDMETHODCALLTYPE SendMessageAsync(IPropertySet* message,
                                                     IAppServiceSendOperation** operation) = 0;
};

struct IClosable : IInspectable {
  static constexpr GUID kIid{
      0x30d5a829, 0x7fa4, 0x4026, {0x83, 0xbb, 0xd7, 0x5b, 0xae, 0x4e, 0xa9, 0x9e}};

  virtual HRESULT STDMETHODCALLTYPE Close() = 0;
};

}  // namespace Vx::Abi

#undef VX_PLACE
#pragma GCC diagnostic pop
