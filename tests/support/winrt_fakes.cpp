#include "support/winrt_fakes.h"

#include <atomic>
#include <stdexcept>
#include <utility>

#include <windows.h>

#include <combaseapi.h>

#include "support/probe.h"

// The classes below have no virtual destructor where the warning wants one: the interfaces' slots
// are Windows' to decide, and only Release deletes.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace Vx::Tests {

namespace {

std::atomic<int> liveObjects{0};
std::atomic<int> liveStrings{0};
std::atomic<int> apartmentEntries{0};
std::atomic<int> apartmentUses{0};

FakeRuntime* current = nullptr;

// An object with these interfaces; the first one is the default.
template <typename Main, typename... Others>
class Fake : public Main, public Others... {
 public:
  Fake() { ++liveObjects; }
  Fake(const Fake&) = delete;
  Fake& operator=(const Fake&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    if (iid == __uuidof(IUnknown) || iid == __uuidof(IInspectable) || iid == Abi::IidOf<Main>()) {
      *object = static_cast<Main*>(this);
    }
    ((iid == Abi::IidOf<Others>() ? void(*object = static_cast<Others*>(this)) : void()), ...);
    if (*object == nullptr) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --references;
    if (left == 0) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE GetIids(ULONG*, IID**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetRuntimeClassName(HSTRING*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetTrustLevel(TrustLevel*) override { return E_NOTIMPL; }

 protected:
  virtual ~Fake() { --liveObjects; }

 private:
  std::atomic<ULONG> references{1};
};

// Each call into a fake begins with this, so that a test can fail every one of them in turn.
#define VX_STEP() \
  if (const HRESULT step = FakeRuntime::Current().Step(); FAILED(step)) return step

std::wstring TextOf(HSTRING text) {
  std::uint32_t length = 0;
  const wchar_t* buffer = WindowsGetStringRawBuffer(text, &length);
  return {buffer, length};
}

HRESULT PutText(const std::wstring& text, HSTRING* out) {
  return WindowsCreateString(text.data(), static_cast<UINT32>(text.size()), out);
}

std::wstring FamilyOf(const std::wstring& fullName) {
  return fullName.substr(0, fullName.find(L'_')) + fullName.substr(fullName.rfind(L'_'));
}

class FakePackageId final : public Fake<Abi::IPackageId> {
 public:
  FakePackageId(std::wstring full, std::wstring family)
      : fullName(std::move(full)), familyName(std::move(family)) {}

  HRESULT STDMETHODCALLTYPE get_FullName(HSTRING* name) override {
    VX_STEP();
    return PutText(fullName, name);
  }
  HRESULT STDMETHODCALLTYPE get_FamilyName(HSTRING* name) override {
    VX_STEP();
    return PutText(familyName, name);
  }

 private:
  std::wstring fullName;
  std::wstring familyName;
};

class FakePackage final : public Fake<Abi::IPackage> {
 public:
  FakePackage(std::wstring full, std::wstring family)
      : fullName(std::move(full)), familyName(std::move(family)) {}

  HRESULT STDMETHODCALLTYPE get_Id(Abi::IPackageId** id) override {
    VX_STEP();
    *id = new FakePackageId(fullName, familyName);
    return S_OK;
  }

 private:
  std::wstring fullName;
  std::wstring familyName;
};

class FakePackageIterator final : public Fake<Abi::IPackageIterator> {
 public:
  explicit FakePackageIterator(std::vector<std::wstring> names) : fullNames(std::move(names)) {}

  HRESULT STDMETHODCALLTYPE get_Current(Abi::IPackage** package) override {
    VX_STEP();
    if (position >= fullNames.size()) return E_BOUNDS;
    *package = new FakePackage(fullNames[position], FamilyOf(fullNames[position]));
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_HasCurrent(Abi::Boolean* has) override {
    VX_STEP();
    *has = position < fullNames.size() ? 1 : 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE MoveNext(Abi::Boolean* has) override {
    VX_STEP();
    ++position;
    *has = position < fullNames.size() ? 1 : 0;
    return S_OK;
  }

 private:
  static constexpr HRESULT E_BOUNDS = static_cast<HRESULT>(0x8000000B);

  std::vector<std::wstring> fullNames;
  std::size_t position = 0;
};

class FakePackageIterable final : public Fake<Abi::IPackageIterable> {
 public:
  explicit FakePackageIterable(std::vector<std::wstring> names) : fullNames(std::move(names)) {}

  HRESULT STDMETHODCALLTYPE First(Abi::IPackageIterator** first) override {
    VX_STEP();
    *first = new FakePackageIterator(fullNames);
    return S_OK;
  }

 private:
  std::vector<std::wstring> fullNames;
};

class FakeDeploymentResult final : public Fake<Abi::IDeploymentResult> {
 public:
  HRESULT STDMETHODCALLTYPE get_ErrorText(HSTRING* text) override {
    VX_STEP();
    return PutText(FakeRuntime::Current().deployment.errorText, text);
  }
  HRESULT STDMETHODCALLTYPE get_ExtendedErrorCode(HRESULT* code) override {
    VX_STEP();
    *code = FakeRuntime::Current().deployment.extendedErrorCode;
    return S_OK;
  }
};

// The common part of asynchronous operations: one handler, called once, when there is an outcome.
template <typename Operation, typename Handler>
class FakeAsync : public Fake<Operation, Abi::IAsyncInfo> {
 public:
  FakeAsync(Abi::AsyncStatus endStatus, HRESULT endError, Completion completion)
      : ended(completion == Completion::AtOnce), finalStatus(endStatus), finalError(endError) {
    if (completion == Completion::AtOnce) return;
    FakeRuntime::Current().Pend(static_cast<Operation*>(this), [](IUnknown* operation) {
      static_cast<FakeAsync*>(static_cast<Operation*>(operation))->Finish();
    });
  }

  HRESULT STDMETHODCALLTYPE put_Completed(Handler* newHandler) override {
    VX_STEP();
    {
      const std::lock_guard guard(mutex);
      if (!ended) {
        newHandler->AddRef();
        handler = Abi::ComPtr<Handler>(newHandler);
        return S_OK;
      }
    }
    newHandler->Invoke(this, finalStatus);
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE get_Status(Abi::AsyncStatus* out) override {
    VX_STEP();
    const std::lock_guard guard(mutex);
    *out = ended ? finalStatus : Abi::AsyncStatus::Started;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_ErrorCode(HRESULT* out) override {
    VX_STEP();
    *out = finalError;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Cancel() override {
    ++FakeRuntime::Current().cancelled;
    return S_OK;
  }

 private:
  void Finish() {
    Abi::ComPtr<Handler> waiting;
    {
      const std::lock_guard guard(mutex);
      ended = true;
      waiting = std::move(handler);
    }
    if (waiting) waiting->Invoke(this, finalStatus);
  }

  std::mutex mutex;
  bool ended;                    // guarded by mutex
  Abi::ComPtr<Handler> handler;  // guarded by mutex
  Abi::AsyncStatus finalStatus;
  HRESULT finalError;
};

class FakeDeploymentOperation final
    : public FakeAsync<Abi::IDeploymentOperation, Abi::IDeploymentCompletedHandler> {
 public:
  explicit FakeDeploymentOperation(const FakeDeployment& plan)
      : FakeAsync(plan.status, plan.errorCode, plan.completion) {}

  HRESULT STDMETHODCALLTYPE GetResults(Abi::IDeploymentResult** result) override {
    VX_STEP();
    *result = new FakeDeploymentResult;
    return S_OK;
  }
};

class FakePackageManager final : public Fake<Abi::IPackageManager, Abi::IPackageManager2> {
  using Packages = Abi::IPackageIterable;

 public:
  HRESULT STDMETHODCALLTYPE FindPackagesByPackageFamilyName(HSTRING family,
                                                            Packages** packages) override {
    VX_STEP();
    return Answer(family, FakeRuntime::Current().machinePackages, packages);
  }
  HRESULT STDMETHODCALLTYPE FindPackagesByUserSecurityIdPackageFamilyName(
      HSTRING sid, HSTRING family, Packages** packages) override {
    VX_STEP();
    return Answer(family, FakeRuntime::Current().userPackages[TextOf(sid)], packages);
  }

  HRESULT STDMETHODCALLTYPE
  RegisterPackageByFullNameAsync(HSTRING fullName, IInspectable*, Abi::DeploymentOptions,
                                 Abi::IDeploymentOperation** operation) override {
    VX_STEP();
    FakeRuntime& runtime = FakeRuntime::Current();
    runtime.registered.push_back(TextOf(fullName));
    if (!runtime.answerNothing) *operation = new FakeDeploymentOperation(runtime.deployment);
    return S_OK;
  }

 private:
  static HRESULT Answer(HSTRING family, const std::vector<std::wstring>& names,
                        Packages** packages) {
    FakeRuntime& runtime = FakeRuntime::Current();
    runtime.familiesAsked.push_back(TextOf(family));
    if (!runtime.answerNothing) *packages = new FakePackageIterable(names);
    return S_OK;
  }
};

class FakeUninstall final : public Fake<Abi::IPackageUninstallingEventArgs> {
 public:
  FakeUninstall(std::wstring family, bool isComplete)
      : familyName(std::move(family)), complete(isComplete) {}

  HRESULT STDMETHODCALLTYPE get_Package(Abi::IPackage** package) override {
    VX_STEP();
    *package = new FakePackage(L"", familyName);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_IsComplete(Abi::Boolean* out) override {
    VX_STEP();
    *out = complete ? 1 : 0;
    return S_OK;
  }

 private:
  std::wstring familyName;
  bool complete;
};

class FakePackageCatalog final : public Fake<Abi::IPackageCatalog> {
 public:
  HRESULT STDMETHODCALLTYPE add_PackageUninstalling(Abi::IPackageUninstallingHandler* handler,
                                                    Abi::EventToken* token) override {
    VX_STEP();
    token->value = FakeRuntime::Current().AddHandler(handler);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE remove_PackageUninstalling(Abi::EventToken token) override {
    VX_STEP();
    FakeRuntime::Current().handlers.erase(token.value);
    return S_OK;
  }
};

class FakePackageCatalogStatics final
    : public Fake<IActivationFactory, Abi::IPackageCatalogStatics> {
 public:
  HRESULT STDMETHODCALLTYPE ActivateInstance(IInspectable**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE OpenForCurrentUser(Abi::IPackageCatalog** catalog) override {
    VX_STEP();
    if (!FakeRuntime::Current().answerNothing) *catalog = new FakePackageCatalog;
    return S_OK;
  }
};

class FakePropertyValue final : public Fake<Abi::IPropertyValue> {
 public:
  FakePropertyValue(std::wstring content, Abi::PropertyType contentType)
      : text(std::move(content)), type(contentType) {}

  const std::wstring& Text() const { return text; }

  HRESULT STDMETHODCALLTYPE get_Type(Abi::PropertyType* out) override {
    *out = type;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetString(HSTRING* out) override {
    VX_STEP();
    return PutText(text, out);
  }

 private:
  std::wstring text;
  Abi::PropertyType type;
};

class FakePropertyValueStatics final : public Fake<IActivationFactory, Abi::IPropertyValueStatics> {
 public:
  HRESULT STDMETHODCALLTYPE ActivateInstance(IInspectable**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE CreateString(HSTRING value, IInspectable** result) override {
    VX_STEP();
    *result = new FakePropertyValue(TextOf(value), Abi::PropertyType::String);
    return S_OK;
  }
};

class FakeValueSet final : public Fake<Abi::IPropertySet, Abi::IStringMap> {
 public:
  HRESULT STDMETHODCALLTYPE Lookup(HSTRING key, IInspectable** value) override {
    VX_STEP();
    const auto found = values.find(TextOf(key));
    if (found == values.end()) return static_cast<HRESULT>(0x8000000B);
    found->second->AddRef();
    *value = found->second.Get();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE HasKey(HSTRING key, Abi::Boolean* found) override {
    VX_STEP();
    *found = values.count(TextOf(key)) != 0 ? 1 : 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Insert(HSTRING key, IInspectable* value, Abi::Boolean* out) override {
    VX_STEP();
    value->AddRef();
    values[TextOf(key)] = Abi::ComPtr<IInspectable>(value);
    *out = 0;
    return S_OK;
  }

  std::map<std::wstring, Abi::ComPtr<IInspectable>> values;
};

class FakeAppServiceResponse final : public Fake<Abi::IAppServiceResponse> {
 public:
  HRESULT STDMETHODCALLTYPE get_Message(Abi::IPropertySet** message) override {
    VX_STEP();
    const FakeApp& app = FakeRuntime::Current().app;
    auto* set = new FakeValueSet;
    if (app.reply) {
      const auto type = app.replyIsNumber ? Abi::PropertyType{4} : Abi::PropertyType::String;
      set->values[L"response"] = Abi::ComPtr<IInspectable>(new FakePropertyValue(*app.reply, type));
    }
    *message = set;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_Status(Abi::AppServiceResponseStatus* status) override {
    VX_STEP();
    *status = static_cast<Abi::AppServiceResponseStatus>(FakeRuntime::Current().app.responseStatus);
    return S_OK;
  }
};

class FakeOpening final
    : public FakeAsync<Abi::IAppServiceOpenOperation, Abi::IAppServiceOpenOperation::Handler> {
 public:
  explicit FakeOpening(const FakeApp& app)
      : FakeAsync(app.openingStatus, app.openingError, app.opening) {}

  HRESULT STDMETHODCALLTYPE GetResults(Abi::AppServiceConnectionStatus* status) override {
    VX_STEP();
    *status =
        static_cast<Abi::AppServiceConnectionStatus>(FakeRuntime::Current().app.connectionStatus);
    return S_OK;
  }
};

class FakeSending final
    : public FakeAsync<Abi::IAppServiceSendOperation, Abi::IAppServiceSendOperation::Handler> {
 public:
  explicit FakeSending(const FakeApp& app)
      : FakeAsync(Abi::AsyncStatus::Completed, S_OK, app.replying) {}

  HRESULT STDMETHODCALLTYPE GetResults(Abi::IAppServiceResponse** response) override {
    VX_STEP();
    *response = new FakeAppServiceResponse;
    return S_OK;
  }
};

class FakeConnection final : public Fake<Abi::IAppServiceConnection, Abi::IClosable> {
 public:
  HRESULT STDMETHODCALLTYPE put_AppServiceName(HSTRING name) override {
    VX_STEP();
    serviceName = TextOf(name);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE put_PackageFamilyName(HSTRING name) override {
    VX_STEP();
    familyName = TextOf(name);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OpenAsync(Abi::IAppServiceOpenOperation** operation) override {
    VX_STEP();
    FakeRuntime& runtime = FakeRuntime::Current();
    runtime.openedServices.push_back(familyName + L"!" + serviceName);
    *operation = new FakeOpening(runtime.app);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SendMessageAsync(Abi::IPropertySet* message,
                                             Abi::IAppServiceSendOperation** operation) override {
    VX_STEP();
    FakeRuntime& runtime = FakeRuntime::Current();
    runtime.messages.push_back(MessageText(message));
    *operation = new FakeSending(runtime.app);
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE Close() override {
    ++FakeRuntime::Current().closed;
    return S_OK;
  }

 private:
  static std::wstring MessageText(Abi::IPropertySet* message) {
    auto& values = static_cast<FakeValueSet*>(message)->values;
    const auto found = values.find(L"message");
    if (values.size() != 1 || found == values.end()) return L"(not one text under \"message\")";
    return static_cast<FakePropertyValue*>(found->second.Get())->Text();
  }

  std::wstring familyName;
  std::wstring serviceName;
};

template <typename Made, typename Default>
class FakeFactory final : public Fake<IActivationFactory> {
 public:
  HRESULT STDMETHODCALLTYPE ActivateInstance(IInspectable** instance) override {
    VX_STEP();
    *instance = static_cast<Default*>(new Made);
    return S_OK;
  }
};

template <typename Factory>
IActivationFactory* Make() {
  return new Factory;
}

// One row a faked class.
constexpr struct {
  const wchar_t* name;
  IActivationFactory* (*makeFactory)();
} kClasses[] = {
    {Abi::kPackageManagerClass, &Make<FakeFactory<FakePackageManager, Abi::IPackageManager>>},
    {Abi::kPackageCatalogClass, &Make<FakePackageCatalogStatics>},
    {Abi::kAppServiceConnectionClass,
     &Make<FakeFactory<FakeConnection, Abi::IAppServiceConnection>>},
    {Abi::kValueSetClass, &Make<FakeFactory<FakeValueSet, Abi::IPropertySet>>},
    {Abi::kPropertyValueClass, &Make<FakePropertyValueStatics>},
};

HRESULT WINAPI ProvideFactory(HSTRING className, IActivationFactory** factory) {
  VX_STEP();
  const std::wstring name = TextOf(className);
  for (const auto& row : kClasses) {
    if (name != row.name) continue;
    *factory = row.makeFactory();
    return S_OK;
  }
  return REGDB_E_CLASSNOTREG;
}

}  // namespace

FakeRuntime::FakeRuntime() {
  current = this;
  const std::wstring shim = TestFolder() + L"\\activation_shim.dll";
  // Stays loaded: the system keeps it anyway once it has activated from it.
  const HMODULE library = LoadLibraryW(shim.c_str());
  using SetProvider = void (*)(PFNGETACTIVATIONFACTORY);
  const auto setProvider = reinterpret_cast<SetProvider>(
      reinterpret_cast<void*>(GetProcAddress(library, "SetFactoryProvider")));
  if (setProvider == nullptr) throw std::runtime_error("the activation library cannot be loaded");
  setProvider(&ProvideFactory);

  const auto* const name = reinterpret_cast<const BYTE*>(shim.c_str());
  for (const auto& row : kClasses) {
    const std::wstring key =
        std::wstring(L"Software\\Microsoft\\WindowsRuntime\\ActivatableClassId\\") + row.name;
    registry.Set(key.c_str(), L"DllPath", REG_SZ,
                 {name, name + (shim.size() + 1) * sizeof(wchar_t)});
  }
}

FakeRuntime::~FakeRuntime() {
  current = nullptr;
}

FakeRuntime::Alive FakeRuntime::Count() {
  return {liveObjects, liveStrings, apartmentEntries, apartmentUses};
}

FakeRuntime& FakeRuntime::Current() {
  return *current;
}

void FakeRuntime::FailCall(int call) {
  callsUntilFailure = call;
}

HRESULT FakeRuntime::Step() {
  if (callsUntilFailure <= 0) return S_OK;
  return --callsUntilFailure == 0 ? E_ACCESSDENIED : S_OK;
}

void FakeRuntime::Pend(IUnknown* operation, void (*complete)(IUnknown*)) {
  const std::lock_guard guard(pendingMutex);
  operation->AddRef();
  pending = Abi::ComPtr<IUnknown>(operation);
  completePending = complete;
}

bool FakeRuntime::CompletePending() {
  Abi::ComPtr<IUnknown> operation;
  {
    const std::lock_guard guard(pendingMutex);
    operation = std::move(pending);
  }
  if (!operation) return false;
  completePending(operation.Get());
  return true;
}

void FakeRuntime::DropPending() {
  const std::lock_guard guard(pendingMutex);
  pending.Reset();
}

std::int64_t FakeRuntime::AddHandler(Abi::IPackageUninstallingHandler* handler) {
  handler->AddRef();
  lastHandler = Abi::ComPtr<Abi::IPackageUninstallingHandler>(handler);
  handlers[++nextToken] = lastHandler;
  return nextToken;
}

HRESULT FakeRuntime::NotifyUninstalling(const std::wstring& familyName, bool complete) {
  const auto arguments =
      Abi::ComPtr<Abi::IPackageUninstallingEventArgs>(new FakeUninstall(familyName, complete));
  HRESULT result = S_OK;
  const auto copy = handlers;
  for (const auto& [token, handler] : copy) {
    const HRESULT answer = handler->Invoke(nullptr, arguments.Get());
    if (FAILED(answer)) result = answer;
  }
  return result;
}

}  // namespace Vx::Tests

// The linker leads the calls of the whole test program through these, which keep count. It dictates
// their names.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

HRESULT WINAPI __real_WindowsCreateString(LPCWSTR text, UINT32 length, HSTRING* string);
HRESULT WINAPI __real_WindowsDuplicateString(HSTRING string, HSTRING* copy);
HRESULT WINAPI __real_WindowsDeleteString(HSTRING string);
HRESULT WINAPI __real_RoInitialize(RO_INIT_TYPE type);
void WINAPI __real_RoUninitialize();
extern decltype(&CoIncrementMTAUsage) __real___imp_CoIncrementMTAUsage;
extern decltype(&CoDecrementMTAUsage) __real___imp_CoDecrementMTAUsage;

HRESULT WINAPI __wrap_WindowsCreateString(LPCWSTR text, UINT32 length, HSTRING* string) {
  const HRESULT result = __real_WindowsCreateString(text, length, string);
  if (SUCCEEDED(result) && *string != nullptr) ++Vx::Tests::liveStrings;
  return result;
}

HRESULT WINAPI __wrap_WindowsDuplicateString(HSTRING string, HSTRING* copy) {
  const HRESULT result = __real_WindowsDuplicateString(string, copy);
  if (SUCCEEDED(result) && *copy != nullptr) ++Vx::Tests::liveStrings;
  return result;
}

HRESULT WINAPI __wrap_WindowsDeleteString(HSTRING string) {
  if (string != nullptr) --Vx::Tests::liveStrings;
  return __real_WindowsDeleteString(string);
}

HRESULT WINAPI __wrap_RoInitialize(RO_INIT_TYPE type) {
  const HRESULT result = __real_RoInitialize(type);
  if (SUCCEEDED(result)) ++Vx::Tests::apartmentEntries;
  return result;
}

void WINAPI __wrap_RoUninitialize() {
  --Vx::Tests::apartmentEntries;
  __real_RoUninitialize();
}

// These two are declared as imports, so callers go through a pointer.
HRESULT WINAPI CountedIncrementMtaUsage(CO_MTA_USAGE_COOKIE* cookie) {
  const HRESULT result = __real___imp_CoIncrementMTAUsage(cookie);
  if (SUCCEEDED(result)) ++Vx::Tests::apartmentUses;
  return result;
}

HRESULT WINAPI CountedDecrementMtaUsage(CO_MTA_USAGE_COOKIE cookie) {
  --Vx::Tests::apartmentUses;
  return __real___imp_CoDecrementMTAUsage(cookie);
}

decltype(&CoIncrementMTAUsage) __wrap___imp_CoIncrementMTAUsage = &CountedIncrementMtaUsage;
decltype(&CoDecrementMTAUsage) __wrap___imp_CoDecrementMTAUsage = &CountedDecrementMtaUsage;

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
