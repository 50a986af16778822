#include "simulator/simulated_firmware.h"

#include <algorithm>
#include <cwchar>
#include <string_view>
#include <utility>

#include "platform/com.h"
#include "platform/com_owners.h"
#include "simulator/wbem_stubs.h"

namespace Vx::Simulator {

namespace {

using Platform::ComPtr;
using Platform::Variant;

// The header declares the status codes as an unsigned enumeration.
constexpr auto kNotFound = static_cast<HRESULT>(WBEM_E_NOT_FOUND);
constexpr auto kInvalidClass = static_cast<HRESULT>(WBEM_E_INVALID_CLASS);
constexpr auto kInvalidParameter = static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER);
constexpr auto kInvalidNamespace = static_cast<HRESULT>(WBEM_E_INVALID_NAMESPACE);

constexpr wchar_t kNamespace[] = LR"(\\.\root\wmi)";
constexpr wchar_t kMethodClass[] = L"zrkBIntM";
constexpr wchar_t kInputClass[] = L"zrkBDataIn";
constexpr wchar_t kOutputClass[] = L"zrkBDataOut";
constexpr wchar_t kParameters[] = L"__PARAMETERS";
constexpr wchar_t kInstancePath[] = LR"(\\PC\root\wmi:zrkBIntM.InstanceName="ACPI\\PNP0C14\\0_0")";
constexpr wchar_t kMethodPrefix[] = L"zrkBIOSInt";

constexpr wchar_t kWritten[] = L"the firmware's warranty block now begins with ";

constexpr std::size_t kBlockSize = 128;
constexpr std::int32_t kRead = 1;
constexpr std::int32_t kWrite = 2;
constexpr std::int32_t kFeatures = 13;
constexpr std::int32_t kWarranty = 16;
constexpr std::size_t kFeatureByte = 1;
constexpr char kEightDigitsBit = 0x10;

// The firmware's return code for an unknown command.
constexpr std::int32_t kUnknownCommand = 1;

// WMI names are ASCII and case-insensitive.
bool SameName(std::wstring_view one, std::wstring_view other) {
  return one.size() == other.size() && _wcsnicmp(one.data(), other.data(), one.size()) == 0;
}

std::string Narrow(std::wstring_view text) {
  std::string narrow;
  for (const wchar_t c : text) narrow += static_cast<char>(c);
  return narrow;
}

std::string BytesOf(const VARIANT& value) {
  std::string bytes;
  SAFEARRAY* const array = Platform::BytesIn(value);
  if (array == nullptr) return bytes;
  const auto [lower, count] = Platform::BoundsOf(*array);
  for (std::uint32_t i = 0; i < count; ++i) {
    std::uint8_t byte = 0;
    Platform::ReadByte(array, lower + static_cast<std::int32_t>(i), byte);
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

void SetBytes(Variant& value, const std::string& bytes) {
  Platform::UniqueSafeArray array(
      SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size())));
  for (LONG i = 0; i < static_cast<LONG>(bytes.size()); ++i) {
    BYTE byte = static_cast<BYTE>(bytes[static_cast<std::size_t>(i)]);
    SafeArrayPutElement(array.get(), &i, &byte);
  }
  value.SetBytes(std::move(array));
}

}  // namespace

// A reference-counted object of the firmware. `count` is the number of live ones.
template <typename Base, typename Interface>
class Implementation : public Base {
 public:
  explicit Implementation(SimulatedFirmware& owner, std::atomic<int>& count)
      : firmware(owner), live(count) {
    ++live;
  }
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override {
    *object = nullptr;
    if (id != __uuidof(IUnknown) && id != __uuidof(Interface)) return E_NOINTERFACE;
    *object = static_cast<Interface*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --references;
    if (left == 0) delete this;
    return left;
  }

 protected:
  virtual ~Implementation() { --live; }

  SimulatedFirmware& firmware;  // NOLINT(cppcoreguidelines-non-private-member-variables-in-classes)
  std::atomic<int>& live;       // NOLINT(cppcoreguidelines-non-private-member-variables-in-classes)

 private:
  std::atomic<ULONG> references{1};
};

// A WMI class, an instance, a method's parameters or a data block: a class name and properties.
class SimulatedFirmware::Object final
    : public Implementation<WbemClassObjectStub, IWbemClassObject> {
 public:
  Object(SimulatedFirmware& owner, std::wstring ofClass)
      : Implementation(owner, owner.liveObjects), className(std::move(ofClass)) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override {
    std::int32_t result = 0;
    if (className == kOutputClass && id == __uuidof(IWbemClassObject) &&
        firmware.Fails("QueryInterface OutData", result)) {
      *object = nullptr;
      return result;
    }
    return Implementation::QueryInterface(id, object);
  }

  HRESULT STDMETHODCALLTYPE Get(LPCWSTR name, LONG, VARIANT* value, CIMTYPE*, LONG*) override {
    VariantInit(value);
    std::int32_t result = 0;
    if (firmware.Fails("Get " + Narrow(name), result)) return result;
    const auto property = properties.find(name);
    if (property == properties.end()) return kNotFound;
    result = VariantCopy(value, property->second.Get());
    firmware.TamperWith(name, *value);
    return result;
  }

  HRESULT STDMETHODCALLTYPE Put(LPCWSTR name, LONG, VARIANT* value, CIMTYPE) override {
    std::int32_t result = 0;
    if (firmware.Fails("Put " + Narrow(name), result)) return result;
    return VariantCopy(properties[name].Get(), value);
  }

  HRESULT STDMETHODCALLTYPE SpawnInstance(LONG, IWbemClassObject** instance) override {
    *instance = nullptr;
    std::int32_t result = 0;
    if (firmware.Fails("SpawnInstance " + Narrow(className), result)) return result;
    *instance = new Object(firmware, className);
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE GetMethod(LPCWSTR name, LONG, IWbemClassObject** in,
                                      IWbemClassObject**) override {
    *in = nullptr;
    std::int32_t result = 0;
    if (firmware.Fails("GetMethod", result)) return result;
    const bool known =
        name == std::wstring(kMethodPrefix) + L"0" || name == std::wstring(kMethodPrefix) + L"128";
    if (className != kMethodClass || !known) return kNotFound;
    *in = new Object(firmware, kParameters);
    return S_OK;
  }

  Variant& Property(const wchar_t* name) { return properties[name]; }

 private:
  const std::wstring className;
  std::map<std::wstring, Variant> properties;
};

class SimulatedFirmware::Enumerator final
    : public Implementation<EnumWbemClassObjectStub, IEnumWbemClassObject> {
 public:
  explicit Enumerator(SimulatedFirmware& owner) : Implementation(owner, owner.liveObjects) {}

  HRESULT STDMETHODCALLTYPE Next(LONG, ULONG, IWbemClassObject** objects,
                                 ULONG* returned) override {
    *objects = nullptr;
    *returned = 0;
    std::int32_t result = 0;
    if (firmware.Fails("Next", result)) return result;
    if (std::exchange(ended, true)) return WBEM_S_FALSE;
    auto* const instance = new Object(firmware, kMethodClass);
    VARIANT* const path = instance->Property(L"__PATH").Receive();
    V_VT(path) = VT_BSTR;
    V_BSTR(path) = SysAllocString(kInstancePath);
    *objects = instance;
    *returned = 1;
    return S_OK;
  }

 private:
  bool ended = false;
};

class SimulatedFirmware::Services final : public Implementation<WbemServicesStub, IWbemServices>,
                                          public IClientSecurity {
 public:
  explicit Services(SimulatedFirmware& owner) : Implementation(owner, owner.liveObjects) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override {
    if (id != __uuidof(IClientSecurity)) return Implementation::QueryInterface(id, object);
    *object = static_cast<IClientSecurity*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return Implementation::AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return Implementation::Release(); }

  HRESULT STDMETHODCALLTYPE QueryBlanket(IUnknown*, DWORD*, DWORD*, OLECHAR**, DWORD*, DWORD*,
                                         void**, DWORD*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE SetBlanket(IUnknown*, DWORD authentication, DWORD, OLECHAR*,
                                       DWORD level, DWORD impersonation, void*, DWORD) override {
    std::int32_t result = 0;
    if (firmware.Fails("SetBlanket", result)) return result;
    const bool asAsked = authentication == RPC_C_AUTHN_WINNT && level == RPC_C_AUTHN_LEVEL_CALL &&
                         impersonation == RPC_C_IMP_LEVEL_IMPERSONATE;
    return asAsked ? S_OK : E_INVALIDARG;
  }
  HRESULT STDMETHODCALLTYPE CopyProxy(IUnknown*, IUnknown**) override { return E_NOTIMPL; }

  HRESULT STDMETHODCALLTYPE GetObject(BSTR name, LONG, IWbemContext*, IWbemClassObject** object,
                                      IWbemCallResult**) override {
    *object = nullptr;
    std::int32_t result = 0;
    if (firmware.Fails("GetObject " + Narrow(name), result)) return result;
    for (const wchar_t* known : {kMethodClass, kInputClass}) {
      if (!SameName(name, known)) continue;
      *object = new Object(firmware, known);
      return S_OK;
    }
    return kNotFound;
  }

  HRESULT STDMETHODCALLTYPE CreateInstanceEnum(BSTR name, LONG, IWbemContext*,
                                               IEnumWbemClassObject** instances) override {
    *instances = nullptr;
    std::int32_t result = 0;
    if (firmware.Fails("CreateInstanceEnum", result)) return result;
    if (!SameName(name, kMethodClass)) return kInvalidClass;
    *instances = new Enumerator(firmware);
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE ExecMethod(BSTR path, BSTR method, LONG, IWbemContext*,
                                       IWbemClassObject* in, IWbemClassObject** out,
                                       IWbemCallResult**) override {
    *out = nullptr;
    std::int32_t result = 0;
    if (firmware.Fails("ExecMethod", result)) return result;

    IUnknown* const block = Platform::ObjectIn(*static_cast<Object*>(in)->Property(L"InData"));
    if (block == nullptr) return kInvalidParameter;
    // Callers pass only objects from this firmware.
    auto& data = *static_cast<Object*>(static_cast<IWbemClassObject*>(block));
    Request request;
    request.path = path;
    request.method = method;
    request.signature = BytesOf(*data.Property(L"Sign"));
    request.command = Platform::Int32In(*data.Property(L"Command")).value_or(-1);
    request.commandType = Platform::Int32In(*data.Property(L"CommandType")).value_or(-1);
    request.size = Platform::Int32In(*data.Property(L"Size")).value_or(-1);
    const VARIANT& bytes = *data.Property(L"zrkBData");
    request.hasData = Platform::BytesIn(bytes) != nullptr;
    request.data = BytesOf(bytes);

    std::string output;
    const std::int32_t code = firmware.Run(std::move(request), output);
    auto* const answer = new Object(firmware, kOutputClass);
    answer->Property(L"rwReturnCode").SetInt32(code);
    if (std::wcscmp(method, L"zrkBIOSInt0") != 0) SetBytes(answer->Property(L"Data"), output);
    const ComPtr<IWbemClassObject> owner(answer);
    auto* const parameters = new Object(firmware, kParameters);
    parameters->Property(L"OutData").SetObject(answer);
    *out = parameters;
    return S_OK;
  }
};

class SimulatedFirmware::Locator final : public Implementation<IWbemLocator, IWbemLocator> {
 public:
  explicit Locator(SimulatedFirmware& owner) : Implementation(owner, owner.liveObjects) {}

  HRESULT STDMETHODCALLTYPE ConnectServer(BSTR where, BSTR, BSTR, BSTR, LONG, BSTR, IWbemContext*,
                                          IWbemServices** services) override {
    *services = nullptr;
    firmware.Connected(where);
    std::int32_t result = 0;
    if (firmware.Fails("ConnectServer", result)) return result;
    if (!SameName(where, kNamespace)) return kInvalidNamespace;
    *services = new Services(firmware);
    return S_OK;
  }
};

// Not counted, because COM keeps a reference while the class is registered, which is not a leak.
class SimulatedFirmware::Factory final : public Implementation<IClassFactory, IClassFactory> {
 public:
  explicit Factory(SimulatedFirmware& owner) : Implementation(owner, uncounted) {}

  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID id, void** object) override {
    *object = nullptr;
    if (outer != nullptr) return CLASS_E_NOAGGREGATION;
    ComPtr<IWbemLocator> locator;
    const HRESULT result = firmware.CreateWbemLocator(locator.Receive());
    if (FAILED(result)) return result;
    return locator ? locator->QueryInterface(id, object) : E_POINTER;
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

 private:
  std::atomic<int> uncounted{0};
};

SimulatedFirmware::SimulatedFirmware(Digits count, std::string bornOnDate)
    : digits(count), warranty(std::move(bornOnDate)) {
  warranty.resize(kBlockSize);
}

SimulatedFirmware::~SimulatedFirmware() = default;

void SimulatedFirmware::Replace(Digits count) {
  const std::lock_guard guard(mutex);
  digits = count;
  warranty.assign(kBlockSize, '\0');
}

void SimulatedFirmware::SetTimeline(Timeline& log) {
  const std::lock_guard guard(mutex);
  timeline = &log;
}

std::string SimulatedFirmware::BornOnDate() const {
  const std::lock_guard guard(mutex);
  return warranty.substr(0, warranty.find('\0'));
}

void SimulatedFirmware::SetWarrantyBlock(std::string block) {
  const std::lock_guard guard(mutex);
  warranty = std::move(block);
}

std::vector<SimulatedFirmware::Request> SimulatedFirmware::Requests() const {
  const std::lock_guard guard(mutex);
  return requests;
}

void SimulatedFirmware::Fail(std::string step, std::int32_t result) {
  FailAfter(std::move(step), 0, result);
}

void SimulatedFirmware::FailAfter(std::string step, unsigned skip, std::int32_t result) {
  const std::lock_guard guard(mutex);
  failures[std::move(step)] = {skip, result};
}

void SimulatedFirmware::ClearFailures() {
  const std::lock_guard guard(mutex);
  failures.clear();
}

void SimulatedFirmware::SetReturnCode(std::int32_t code) {
  const std::lock_guard guard(mutex);
  returnCode = code;
}

void SimulatedFirmware::SetTamper(Tamper change) {
  const std::lock_guard guard(mutex);
  tamper = std::move(change);
}

std::wstring SimulatedFirmware::ConnectedTo() const {
  const std::lock_guard guard(mutex);
  return connectedTo;
}

bool SimulatedFirmware::Fails(const std::string& step, std::int32_t& result) {
  const std::lock_guard guard(mutex);
  const auto failure = failures.find(step);
  if (failure == failures.end()) return false;
  if (failure->second.skip > 0) {
    --failure->second.skip;
    return false;
  }
  result = failure->second.result;
  return true;
}

void SimulatedFirmware::Connected(const std::wstring& where) {
  const std::lock_guard guard(mutex);
  connectedTo = where;
  ++connections;
}

void SimulatedFirmware::TamperWith(const std::wstring& property, tagVARIANT& value) const {
  const std::lock_guard guard(mutex);
  if (tamper) tamper(property, value);
}

std::int32_t SimulatedFirmware::Run(Request request, std::string& output) {
  const std::lock_guard guard(mutex);
  requests.push_back(std::move(request));
  const Request& command = requests.back();
  if (command.signature != "SECU") return kUnknownCommand;
  if (command.command == kWrite && command.commandType == kWarranty) {
    const std::size_t expected = digits == Digits::Eight ? 8 : 6;
    if (command.data.size() != expected) return kUnknownCommand;
    std::copy(command.data.begin(), command.data.end(), warranty.begin());
    if (timeline != nullptr) {
      timeline->Add(kWritten + std::wstring(command.data.begin(), command.data.end()));
    }
    return returnCode;
  }
  if (command.command != kRead) return kUnknownCommand;
  output.assign(kBlockSize, '\0');
  if (command.commandType == kFeatures) {
    output[kFeatureByte] = digits == Digits::Eight ? kEightDigitsBit : char{0};
  } else if (command.commandType == kWarranty) {
    output = warranty;
  }
  return returnCode;
}

std::int32_t SimulatedFirmware::InitializeMultithreaded() {
  std::int32_t result = S_OK;
  if (Fails("CoInitializeEx", result)) return result;
  ++initializations;
  return S_OK;
}

void SimulatedFirmware::Uninitialize() {
  --initializations;
}

std::int32_t SimulatedFirmware::InitializeSecurity(Platform::Cloaking /*cloaking*/) {
  std::int32_t result = S_OK;
  Fails("CoInitializeSecurity", result);
  return result;
}

std::int32_t SimulatedFirmware::CreateWbemLocator(IWbemLocator** locator) {
  *locator = nullptr;
  std::int32_t result = S_OK;
  if (Fails("CoCreateInstance", result)) return result;
  *locator = new Locator(*this);
  return S_OK;
}

std::int32_t SimulatedFirmware::SetProxyBlanket(IUnknown* proxy) {
  ComPtr<IClientSecurity> security;
  void* queried = nullptr;
  const HRESULT result = proxy->QueryInterface(__uuidof(IClientSecurity), &queried);
  if (FAILED(result)) return result;
  security = ComPtr<IClientSecurity>(static_cast<IClientSecurity*>(queried));
  return security->SetBlanket(proxy, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                              RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr,
                              EOAC_NONE);
}

wchar_t* SimulatedFirmware::MakeText(const wchar_t* text) {
  std::int32_t result = S_OK;
  return Fails("MakeText", result) ? nullptr : SysAllocString(text);
}

tagSAFEARRAY* SimulatedFirmware::MakeByteArray(std::uint32_t count) {
  std::int32_t result = S_OK;
  return Fails("MakeByteArray", result) ? nullptr : SafeArrayCreateVector(VT_UI1, 0, count);
}

std::int32_t SimulatedFirmware::PutByte(tagSAFEARRAY* bytes, std::int32_t index,
                                        std::uint8_t value) {
  std::int32_t result = S_OK;
  if (Fails("PutByte", result)) return result;
  LONG at = index;
  return SafeArrayPutElement(bytes, &at, &value);
}

SimulatedFirmware::ClassRegistration::ClassRegistration(SimulatedFirmware& firmware) {
  const ComPtr<IClassFactory> factory(new Factory(firmware));
  CoRegisterClassObject(CLSID_WbemLocator, factory.Get(), CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                        &cookie);
}

SimulatedFirmware::ClassRegistration::~ClassRegistration() {
  if (cookie != 0) CoRevokeClassObject(cookie);
}

}  // namespace Vx::Simulator
