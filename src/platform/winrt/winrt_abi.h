#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

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

// Returns the identifier written as `text`, in lower case and without braces.
consteval GUID Guid(std::string_view text) {
  std::uint64_t halves[2] = {};  // 16 digits each
  std::size_t digits = 0;
  for (const char c : text) {
    if (c == '-') continue;
    const auto digit = static_cast<unsigned>(c <= '9' ? c - '0' : c - 'a' + 10);
    std::uint64_t& half = halves[digits++ / 16];
    half = half << 4 | digit;
  }
  GUID guid{static_cast<std::uint32_t>(halves[0] >> 32),
            static_cast<std::uint16_t>(halves[0] >> 16),
            static_cast<std::uint16_t>(halves[0]),
            {}};
  for (int i = 0; i < 8; ++i) guid.Data4[i] = static_cast<unsigned char>(halves[1] >> (56 - 8 * i));
  return guid;
}

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
  static constexpr GUID kIid = Guid("00000036-0000-0000-c000-000000000046");

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
  static constexpr GUID kIid = Guid("1b0d3570-0877-5ec2-8a2c-3b9539506aca");

  virtual HRESULT STDMETHODCALLTYPE Lookup(HSTRING key, IInspectable** value) = 0;
  VX_PLACE(get_Size)
  virtual HRESULT STDMETHODCALLTYPE HasKey(HSTRING key, Boolean* found) = 0;
  VX_PLACE(GetView)
  virtual HRESULT STDMETHODCALLTYPE Insert(HSTRING key, IInspectable* value, Boolean* replaced) = 0;
};

// The default interface of a ValueSet. Has no methods of its own.
struct IPropertySet : IInspectable {
  static constexpr GUID kIid = Guid("8a43ed9f-f4e6-4421-acf9-1dab2986820c");
};

inline constexpr wchar_t kValueSetClass[] = L"Windows.Foundation.Collections.ValueSet";

inline constexpr wchar_t kPropertyValueClass[] = L"Windows.Foundation.PropertyValue";

enum class PropertyType : std::int32_t { Empty = 0, String = 12 };

struct IPropertyValueStatics : IInspectable {
  static constexpr GUID kIid = Guid("629bdbc8-d932-4ff4-96b9-8d96c5c1e858");

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
  static constexpr GUID kIid = Guid("4bd682dd-7554-40e9-9a9b-82654ede7e62");

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
  static constexpr GUID kIid = Guid("1adb665e-37c7-4790-9980-dd7ae74e8bb2");

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
  static constexpr GUID kIid = Guid("163c792f-bd75-413c-bf23-b1fe7b95d825");

  virtual HRESULT STDMETHODCALLTYPE get_Id(IPackageId** id) = 0;
};

using IPackageIterable = IIterable<IPackage*>;
using IPackageIterator = IIterator<IPackage*>;

template <>
inline constexpr GUID IPackageIterable::kIid = Guid("69ad6aa7-0c49-5f27-a5eb-ef4d59467b6d");
template <>
inline constexpr GUID IPackageIterator::kIid = Guid("0217f069-025c-5ee6-a87f-e782e3b623ae");

inline constexpr wchar_t kPackageManagerClass[] = L"Windows.Management.Deployment.PackageManager";

enum class DeploymentOptions : std::uint32_t { None = 0 };

struct IDeploymentResult : IInspectable {
  static constexpr GUID kIid = Guid("2563b9ae-b77d-4c1f-8a7b-20e6ad515ef3");

  virtual HRESULT STDMETHODCALLTYPE get_ErrorText(HSTRING* text) = 0;
  VX_PLACE(get_ActivityId)
  virtual HRESULT STDMETHODCALLTYPE get_ExtendedErrorCode(HRESULT* errorCode) = 0;
};

struct IDeploymentOperation;

// AsyncOperationWithProgressCompletedHandler<DeploymentResult, DeploymentProgress>.
struct IDeploymentCompletedHandler : IUnknown {
  using Sender = IDeploymentOperation*;
  using Argument = AsyncStatus;
  static constexpr GUID kIid = Guid("6e1c7129-61e0-5d88-9fd4-f3ce65a05719");

  virtual HRESULT STDMETHODCALLTYPE Invoke(Sender operation, Argument status) = 0;
};

// IAsyncOperationWithProgress<DeploymentResult, DeploymentProgress>.
struct IDeploymentOperation : IInspectable {
  using Handler = IDeploymentCompletedHandler;
  static constexpr GUID kIid = Guid("5a97aab7-b6ea-55ac-a5dc-d5b164d94e94");

  VX_PLACE(put_Progress)
  VX_PLACE(get_Progress)
  virtual HRESULT STDMETHODCALLTYPE put_Completed(IDeploymentCompletedHandler* handler) = 0;
  VX_PLACE(get_Completed)
  virtual HRESULT STDMETHODCALLTYPE GetResults(IDeploymentResult** result) = 0;
};

struct IPackageManager : IInspectable {
  static constexpr GUID kIid = Guid("9a7d4b65-5e8f-4fc7-a2e5-7f6925cb8b53");

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
  static constexpr GUID kIid = Guid("f7aad08d-0840-46f2-b5d8-cad47693a095");

  VX_PLACE(RemovePackageWithOptionsAsync)
  VX_PLACE(StagePackageWithOptionsAsync)
  // `dependencies` may be null.
  virtual HRESULT STDMETHODCALLTYPE
  RegisterPackageByFullNameAsync(HSTRING fullName, IInspectable* dependencies,
                                 DeploymentOptions options, IDeploymentOperation** operation) = 0;
};

inline constexpr wchar_t kPackageCatalogClass[] = L"Windows.ApplicationModel.PackageCatalog";

struct IPackageUninstallingEventArgs : IInspectable {
  static constexpr GUID kIid = Guid("4443aa52-ab22-44cd-82bb-4ec9b827367a");

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
  static constexpr GUID kIid = Guid("bd636cf1-541f-53ea-8efc-e1604a395b1a");

  virtual HRESULT STDMETHODCALLTYPE Invoke(Sender catalog, Argument arguments) = 0;
};

struct IPackageCatalog : IInspectable {
  static constexpr GUID kIid = Guid("230a3751-9de3-4445-be74-91fb325abefe");

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
  static constexpr GUID kIid = Guid("a18c9696-e65b-4634-ba21-5e63eb7244a7");

  VX_PLACE(OpenForCurrentPackage)
  virtual HRESULT STDMETHODCALLTYPE OpenForCurrentUser(IPackageCatalog** catalog) = 0;
};

inline constexpr wchar_t kAppServiceConnectionClass[] =
    L"Windows.ApplicationModel.AppService.AppServiceConnection";

enum class AppServiceConnectionStatus : std::int32_t { Success = 0 };
enum class AppServiceResponseStatus : std::int32_t { Success = 0 };

struct IAppServiceResponse : IInspectable {
  static constexpr GUID kIid = Guid("8d503cec-9aa3-4e68-9559-9de63e372ce4");

  virtual HRESULT STDMETHODCALLTYPE get_Message(IPropertySet** message) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Status(AppServiceResponseStatus* status) = 0;
};

using IAppServiceOpenOperation = IAsyncOperation<AppServiceConnectionStatus>;
using IAppServiceSendOperation = IAsyncOperation<IAppServiceResponse*>;

template <>
inline constexpr GUID IAppServiceOpenOperation::kIid = Guid("0d0e6663-2639-5a9a-9cbc-30d7d4ce533b");
template <>
inline constexpr GUID IAppServiceOpenOperation::Handler::kIid =
    Guid("b6c6bbf2-72ca-5799-a651-d1990670097b");
template <>
inline constexpr GUID IAppServiceSendOperation::kIid = Guid("48755a7c-c88f-5ef0-9b4c-876fcc2610b4");
template <>
inline constexpr GUID IAppServiceSendOperation::Handler::kIid =
    Guid("7ea7d7ec-e164-52c3-8e32-bba7126d9028");

struct IAppServiceConnection : IInspectable {
  static constexpr GUID kIid = Guid("9dd474a2-871f-4d52-89a9-9e090531bd27");

  VX_PLACE(get_AppServiceName)
  virtual HRESULT STDMETHODCALLTYPE put_AppServiceName(HSTRING name) = 0;
  VX_PLACE(get_PackageFamilyName)
  virtual HRESULT STDMETHODCALLTYPE put_PackageFamilyName(HSTRING name) = 0;
  virtual HRESULT STDMETHODCALLTYPE OpenAsync(IAppServiceOpenOperation** operation) = 0;
  virtual HRESULT STDMETHODCALLTYPE SendMessageAsync(IPropertySet* message,
                                                     IAppServiceSendOperation** operation) = 0;
};

struct IClosable : IInspectable {
  static constexpr GUID kIid = Guid("30d5a829-7fa4-4026-83bb-d75bae4ea99e");

  virtual HRESULT STDMETHODCALLTYPE Close() = 0;
};

}  // namespace Vx::Abi

#undef VX_PLACE
#pragma GCC diagnostic pop
