#include "support/winrt_fakes.h"

#include <atomic>
#include <thread>
#include <utility>

#include <windows.h>

#include <combaseapi.h>

// Windows dictates the slots, so these have no virtual destructor. Only Release deletes.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace Vx::Tests {

namespace {

std::atomic<int> liveObjects{0};
std::atomic<int> liveStrings{0};

RuntimeTest* runtime = nullptr;

// An object with these interfaces, the first of which is the default.
template <typename Main, typename... Others>
class Fake : public Main, public Others... {
 public:
  using Default = Main;

  Fake() { ++liveObjects; }

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    if (iid == __uuidof(IUnknown) || iid == __uuidof(IInspectable) || iid == Abi::IidOf<Main>()) {
      *object = static_cast<Main*>(this);
    }
    ((iid == Abi::IidOf<Others>() ? void(*object = static_cast<Others*>(this)) : void()), ...);
    if (*object == nullptr) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG left = --references;
    if (left == 0) delete this;
    return left;
  }
  STDMETHODIMP GetIids(ULONG*, IID**) override { return E_NOTIMPL; }
  STDMETHODIMP GetRuntimeClassName(HSTRING*) override { return E_NOTIMPL; }
  STDMETHODIMP GetTrustLevel(TrustLevel*) override { return E_NOTIMPL; }

 protected:
  virtual ~Fake() { --liveObjects; }

 private:
  std::atomic<ULONG> references{1};
};

template <typename Made>
typename Made::Default* Make() {
  return new Made;
}

template <typename T>
Abi::ComPtr<T> Shared(T* object) {
  object->AddRef();
  return Abi::ComPtr<T>(object);
}

// Every call into a fake returns through one of these, so that a test can fail each in turn.
template <typename Body>
HRESULT Answer(Body body) {
  if (runtime->Fails()) return E_ACCESSDENIED;
  body();
  return S_OK;
}
template <typename T, typename Value>
HRESULT Put(T* out, Value value) {
  return Answer([&] { *out = static_cast<T>(value); });
}
template <typename Made, typename Out, typename... Arguments>
HRESULT PutNew(Out** out, const Arguments&... arguments) {
  return Answer([&] {
    if (!runtime->answerNothing) *out = new Made(arguments...);
  });
}
HRESULT Put(HSTRING* out, const std::wstring& text) {
  return Answer([&] { WindowsCreateString(text.data(), static_cast<UINT32>(text.size()), out); });
}

std::wstring TextOf(HSTRING text) {
  std::uint32_t length = 0;
  const wchar_t* buffer = WindowsGetStringRawBuffer(text, &length);
  return {buffer, length};
}

// A package and its identity, constructed from its full name or family name.
class FakePackage final : public Fake<Abi::IPackage, Abi::IPackageId> {
 public:
  explicit FakePackage(std::wstring anyName) : name(std::move(anyName)) {}

  STDMETHODIMP get_Id(Abi::IPackageId** id) override { return PutNew<FakePackage>(id, name); }
  STDMETHODIMP get_FullName(HSTRING* out) override { return Put(out, name); }
  STDMETHODIMP get_FamilyName(HSTRING* out) override {
    return Put(out, name.substr(0, name.find(L'_')) + name.substr(name.rfind(L'_')));
  }

 private:
  std::wstring name;
};

class FakePackages final : public Fake<Abi::IPackageIterable, Abi::IPackageIterator> {
 public:
  explicit FakePackages(std::vector<std::wstring> names) : fullNames(std::move(names)) {}

  STDMETHODIMP First(Abi::IPackageIterator** first) override {
    return PutNew<FakePackages>(first, fullNames);
  }
  STDMETHODIMP get_Current(Abi::IPackage** package) override {
    return PutNew<FakePackage>(package, fullNames.at(position));
  }
  STDMETHODIMP get_HasCurrent(Abi::Boolean* has) override {
    return Put(has, position < fullNames.size());
  }
  STDMETHODIMP MoveNext(Abi::Boolean* has) override {
    ++position;
    return get_HasCurrent(has);
  }

 private:
  std::vector<std::wstring> fullNames;
  std::size_t position = 0;
};

// An asynchronous operation with one handler, which is called once, when it ends.
template <typename Operation, typename Handler, typename Results>
class FakeAsync final : public Fake<Operation, Abi::IAsyncInfo> {
 public:
  FakeAsync(const FakeEnding& end, Results (*make)())
      : ending(end), makeResults(make), ended(!end.onRequest) {
    if (!ended) runtime->Pend([self = Shared(this)] { self->Finish(); });
  }

  STDMETHODIMP put_Completed(Handler* newHandler) override {
    const HRESULT answer = Answer([&] {
      {
        const std::lock_guard guard(mutex);
        handler = Shared(newHandler);
        if (!ended) return;
      }
      Finish();
    });
    return ending.refusesHandler ? E_ACCESSDENIED : answer;
  }
  STDMETHODIMP get_Status(Abi::AsyncStatus* out) override {
    const std::lock_guard guard(mutex);
    return Put(out, ended ? ending.status : Abi::AsyncStatus::Started);
  }
  STDMETHODIMP get_ErrorCode(HRESULT* out) override { return Put(out, ending.error); }
  STDMETHODIMP Cancel() override {
    ++runtime->cancelled;
    return S_OK;
  }
  STDMETHODIMP GetResults(Results* results) override {
    return Answer([&] { *results = makeResults(); });
  }

 private:
  void Finish() {
    Abi::ComPtr<Handler> waiting;
    {
      const std::lock_guard guard(mutex);
      ended = true;
      waiting = std::move(handler);
    }
    if (waiting) waiting->Invoke(this, ending.status);
  }

  FakeEnding ending;
  Results (*makeResults)();
  std::mutex mutex;
  bool ended;                    // guarded by mutex
  Abi::ComPtr<Handler> handler;  // guarded by mutex
};

using FakeDeployment =
    FakeAsync<Abi::IDeploymentOperation, Abi::IDeploymentCompletedHandler, Abi::IDeploymentResult*>;
using FakeOpening = FakeAsync<Abi::IAppServiceOpenOperation, Abi::IAppServiceOpenOperation::Handler,
                              Abi::AppServiceConnectionStatus>;
using FakeSending = FakeAsync<Abi::IAppServiceSendOperation, Abi::IAppServiceSendOperation::Handler,
                              Abi::IAppServiceResponse*>;

class FakeDeploymentResult final : public Fake<Abi::IDeploymentResult> {
 public:
  STDMETHODIMP get_ErrorText(HSTRING* text) override { return Put(text, runtime->errorText); }
  STDMETHODIMP get_ExtendedErrorCode(HRESULT* code) override {
    return Put(code, runtime->extendedErrorCode);
  }
};

class FakePackageManager final : public Fake<Abi::IPackageManager, Abi::IPackageManager2> {
  using Packages = Abi::IPackageIterable;

 public:
  STDMETHODIMP FindPackagesByPackageFamilyName(HSTRING family, Packages** packages) override {
    runtime->familiesAsked.push_back(TextOf(family));
    return PutNew<FakePackages>(packages, runtime->machinePackages);
  }
  STDMETHODIMP FindPackagesByUserSecurityIdPackageFamilyName(HSTRING sid, HSTRING family,
                                                             Packages** packages) override {
    runtime->familiesAsked.push_back(TextOf(family));
    return PutNew<FakePackages>(packages, runtime->userPackages[TextOf(sid)]);
  }
  STDMETHODIMP RegisterPackageByFullNameAsync(HSTRING fullName, IInspectable*,
                                              Abi::DeploymentOptions,
                                              Abi::IDeploymentOperation** operation) override {
    runtime->registered.push_back(TextOf(fullName));
    return PutNew<FakeDeployment>(operation, runtime->deployment, &Make<FakeDeploymentResult>);
  }
};

class FakeUninstall final : public Fake<Abi::IPackageUninstallingEventArgs> {
 public:
  FakeUninstall(std::wstring family, bool isComplete)
      : familyName(std::move(family)), complete(isComplete) {}

  STDMETHODIMP get_Package(Abi::IPackage** package) override {
    return PutNew<FakePackage>(package, familyName);
  }
  STDMETHODIMP get_IsComplete(Abi::Boolean* out) override { return Put(out, complete); }

 private:
  std::wstring familyName;
  bool complete;
};

class FakePackageCatalog final : public Fake<Abi::IPackageCatalog> {
 public:
  STDMETHODIMP add_PackageUninstalling(Abi::IPackageUninstallingHandler* handler,
                                       Abi::EventToken* token) override {
    static std::int64_t lastToken = 100;
    return Answer([&] {
      const std::lock_guard guard(runtime->handlersMutex);
      token->value = ++lastToken;
      runtime->handlers[token->value] = Shared(handler);
    });
  }
  STDMETHODIMP remove_PackageUninstalling(Abi::EventToken token) override {
    return Answer([&] {
      const std::lock_guard guard(runtime->handlersMutex);
      runtime->handlers.erase(token.value);
    });
  }
};

class FakePackageCatalogStatics final : public Fake<Abi::IPackageCatalogStatics> {
 public:
  STDMETHODIMP OpenForCurrentUser(Abi::IPackageCatalog** catalog) override {
    APTTYPEQUALIFIER qualifier{};
    CoGetApartmentType(&runtime->catalogApartment, &qualifier);
    runtime->openedAsAnother = ThreadActsAsAnother();
    return PutNew<FakePackageCatalog>(catalog);
  }
};

class FakePropertyValue final : public Fake<Abi::IPropertyValue> {
 public:
  FakePropertyValue(std::wstring content, Abi::PropertyType contentType)
      : text(std::move(content)), type(contentType) {}

  STDMETHODIMP get_Type(Abi::PropertyType* out) override {
    *out = type;
    return S_OK;
  }
  STDMETHODIMP GetString(HSTRING* out) override { return Put(out, text); }

  const std::wstring text;

 private:
  Abi::PropertyType type;
};

class FakePropertyValueStatics final : public Fake<Abi::IPropertyValueStatics> {
 public:
  STDMETHODIMP CreateString(HSTRING value, IInspectable** result) override {
    return PutNew<FakePropertyValue>(result, TextOf(value), Abi::PropertyType::String);
  }
};

class FakeValueSet final : public Fake<Abi::IPropertySet, Abi::IStringMap> {
 public:
  STDMETHODIMP Lookup(HSTRING key, IInspectable** value) override {
    return Answer([&] { values.at(TextOf(key))->QueryInterface(value); });
  }
  STDMETHODIMP HasKey(HSTRING key, Abi::Boolean* found) override {
    return Put(found, values.count(TextOf(key)));
  }
  STDMETHODIMP Insert(HSTRING key, IInspectable* value, Abi::Boolean*) override {
    return Answer([&] { values[TextOf(key)] = Shared(value); });
  }

  std::map<std::wstring, Abi::ComPtr<IInspectable>> values;
};

class FakeAppServiceResponse final : public Fake<Abi::IAppServiceResponse> {
 public:
  STDMETHODIMP get_Message(Abi::IPropertySet** message) override {
    return Answer([&] {
      auto* set = new FakeValueSet;
      *message = set;
      if (!runtime->reply) return;
      const auto type = runtime->replyIsNumber ? Abi::PropertyType{4} : Abi::PropertyType::String;
      set->values[L"response"] =
          Abi::ComPtr<IInspectable>(new FakePropertyValue(*runtime->reply, type));
    });
  }
  STDMETHODIMP get_Status(Abi::AppServiceResponseStatus* status) override {
    return Put(status, runtime->responseStatus);
  }
};

Abi::AppServiceConnectionStatus ConnectionStatus() {
  return static_cast<Abi::AppServiceConnectionStatus>(runtime->connectionStatus);
}

class FakeConnection final : public Fake<Abi::IAppServiceConnection, Abi::IClosable> {
 public:
  STDMETHODIMP put_AppServiceName(HSTRING name) override { return Put(&serviceName, TextOf(name)); }
  STDMETHODIMP put_PackageFamilyName(HSTRING name) override {
    return Put(&familyName, TextOf(name));
  }
  STDMETHODIMP OpenAsync(Abi::IAppServiceOpenOperation** operation) override {
    runtime->openedServices.push_back(familyName + L"!" + serviceName);
    runtime->openedAsAnother = ThreadActsAsAnother();
    return PutNew<FakeOpening>(operation, runtime->opening, &ConnectionStatus);
  }
  STDMETHODIMP SendMessageAsync(Abi::IPropertySet* message,
                                Abi::IAppServiceSendOperation** operation) override {
    const auto& values = static_cast<FakeValueSet*>(message)->values;
    EXPECT_EQ(values.size(), 1U);
    const auto& value = values.at(L"message");
    runtime->messages.push_back(static_cast<FakePropertyValue*>(value.Get())->text);
    return PutNew<FakeSending>(operation, runtime->replying, &Make<FakeAppServiceResponse>);
  }
  STDMETHODIMP Close() override {
    ++runtime->closed;
    return S_OK;
  }

 private:
  std::wstring familyName;
  std::wstring serviceName;
};

IInspectable* MakeOf(const std::wstring& className) {
  if (className == Abi::kPackageManagerClass) return Make<FakePackageManager>();
  if (className == Abi::kPackageCatalogClass) return Make<FakePackageCatalogStatics>();
  if (className == Abi::kAppServiceConnectionClass) return Make<FakeConnection>();
  if (className == Abi::kValueSetClass) return Make<FakeValueSet>();
  if (className == Abi::kPropertyValueClass) return Make<FakePropertyValueStatics>();
  return nullptr;
}

// A fake class's factory, as returned to Windows. It also implements the static members.
class FakeFactory final : public Fake<IActivationFactory> {
 public:
  explicit FakeFactory(std::wstring name) : className(std::move(name)) {}

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    const HRESULT own = Fake::QueryInterface(iid, object);
    return SUCCEEDED(own) ? own : Abi::ComPtr(MakeOf(className))->QueryInterface(iid, object);
  }
  STDMETHODIMP ActivateInstance(IInspectable** instance) override {
    *instance = MakeOf(className);
    return S_OK;
  }

 private:
  std::wstring className;
};

bool InApartment() {
  APTTYPE type{};
  APTTYPEQUALIFIER qualifier{};
  return SUCCEEDED(CoGetApartmentType(&type, &qualifier));
}

HRESULT Activate(HSTRING className, REFIID iid, void** object) {
  if (!InApartment()) return CO_E_NOTINITIALIZED;
  if (runtime->Fails()) return E_ACCESSDENIED;
  const Abi::ComPtr made(MakeOf(TextOf(className)));
  return made ? made->QueryInterface(iid, object) : REGDB_E_CLASSNOTREG;
}

}  // namespace

RuntimeTest::RuntimeTest() {
  runtime = this;
}

RuntimeTest::~RuntimeTest() {
  runtime = nullptr;
}

void RuntimeTest::TearDown() {
  pending = nullptr;
  ExpectNothingLeft();
}

void RuntimeTest::ExpectNothingLeft() {
  EXPECT_EQ(liveObjects, 0);
  EXPECT_EQ(liveStrings, 0);
  EXPECT_FALSE(InApartment());
}

void RuntimeTest::ExpectEachFailureTold(int fewestCalls,
                                        const std::function<HRESULT()>& operation) {
  for (int call = 1; call < 100; ++call) {
    SCOPED_TRACE(call);
    FailCall(call);
    HRESULT result = S_OK;
    try {
      result = operation();
    } catch (const Platform::WindowsRuntimeError& error) {
      result = error.code();
      EXPECT_FALSE(error.message().empty());
    }
    const bool failed = std::exchange(callsUntilFailure, -1) == 0;
    EXPECT_EQ(result, failed ? E_ACCESSDENIED : S_OK);
    ExpectNothingLeft();
    if (failed) continue;
    EXPECT_GT(call, fewestCalls) << "too few calls were tried";
    return;
  }
  FAIL() << "the operation never succeeded";
}

void RuntimeTest::Pend(std::function<void()> complete) {
  const std::lock_guard guard(pendingMutex);
  pending = std::move(complete);
}

void RuntimeTest::AwaitPending() {
  for (;; std::this_thread::yield()) {
    const std::lock_guard guard(pendingMutex);
    if (pending) return;
  }
}

bool RuntimeTest::CompletePending() {
  std::function<void()> complete;
  {
    const std::lock_guard guard(pendingMutex);
    complete.swap(pending);
  }
  if (complete) complete();
  return complete != nullptr;
}

void RuntimeTest::CompletePendingOnes(int count) {
  for (int ended = 0; ended < count; std::this_thread::yield()) ended += CompletePending() ? 1 : 0;
}

HRESULT RuntimeTest::NotifyUninstalling(const std::wstring& familyName, bool complete) {
  const Handlers copy = handlers;
  return NotifyUninstalling(familyName, complete, copy);
}

HRESULT RuntimeTest::NotifyUninstalling(const std::wstring& familyName, bool complete,
                                        const Handlers& called) {
  const Abi::ComPtr arguments(new FakeUninstall(familyName, complete));
  HRESULT result = S_OK;
  for (const auto& [token, handler] : called) {
    const HRESULT answer = handler->Invoke(nullptr, arguments.Get());
    if (FAILED(answer)) result = answer;
  }
  return result;
}

RuntimeTest::Handlers RuntimeTest::AwaitHandlers() {
  for (;; std::this_thread::yield()) {
    const std::lock_guard guard(handlersMutex);
    if (!handlers.empty()) return handlers;
  }
}

RegisteredFakes::RegisteredFakes()
    : keyName(L"Software\\vx-fakes-" + std::to_wstring(GetCurrentProcessId())) {
  RegCreateKeyExW(HKEY_CURRENT_USER, keyName.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                  &machine, nullptr);
  // Data protection looks up its provider here.
  const wchar_t* const providers = L"Software\\Microsoft\\Cryptography\\Defaults";
  HKEY copy = nullptr;
  RegCreateKeyW(machine, providers, &copy);
  RegCopyTreeW(HKEY_LOCAL_MACHINE, providers, copy);
  RegCloseKey(copy);
  wchar_t program[MAX_PATH];
  const DWORD length = GetModuleFileNameW(nullptr, program, MAX_PATH);
  for (const wchar_t* className :
       {Abi::kPackageManagerClass, Abi::kPackageCatalogClass, Abi::kAppServiceConnectionClass,
        Abi::kValueSetClass, Abi::kPropertyValueClass}) {
    const std::wstring key =
        std::wstring(L"Software\\Microsoft\\WindowsRuntime\\ActivatableClassId\\") + className;
    RegSetKeyValueW(machine, key.c_str(), L"DllPath", REG_SZ, program,
                    (length + 1) * static_cast<DWORD>(sizeof(wchar_t)));
  }
  RegOverridePredefKey(HKEY_LOCAL_MACHINE, machine);
}

RegisteredFakes::~RegisteredFakes() {
  RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
  RegCloseKey(machine);
  RegDeleteTreeW(HKEY_CURRENT_USER, keyName.c_str());
}

}  // namespace Vx::Tests

// The linker redirects the test program's calls to these functions and dictates their names. They
// count strings and, while a fixture lives, activate the fakes.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

// Called by Windows if the registry names this program as the server of a class.
__declspec(dllexport) HRESULT WINAPI
    DllGetActivationFactory(HSTRING name, IActivationFactory** factory) {
  *factory = new Vx::Tests::FakeFactory(Vx::Tests::TextOf(name));
  return S_OK;
}

HRESULT WINAPI __real_WindowsCreateString(LPCWSTR text, UINT32 length, HSTRING* string);
HRESULT WINAPI __real_WindowsDeleteString(HSTRING string);
HRESULT WINAPI __real_RoActivateInstance(HSTRING name, IInspectable** instance);
HRESULT WINAPI __real_RoGetActivationFactory(HSTRING name, REFIID iid, void** factory);

HRESULT WINAPI __wrap_WindowsCreateString(LPCWSTR text, UINT32 length, HSTRING* string) {
  const HRESULT result = __real_WindowsCreateString(text, length, string);
  if (SUCCEEDED(result) && *string != nullptr) ++Vx::Tests::liveStrings;
  return result;
}

HRESULT WINAPI __wrap_WindowsDeleteString(HSTRING string) {
  if (string != nullptr) --Vx::Tests::liveStrings;
  return __real_WindowsDeleteString(string);
}

HRESULT WINAPI __wrap_RoActivateInstance(HSTRING name, IInspectable** instance) {
  if (Vx::Tests::runtime == nullptr) return __real_RoActivateInstance(name, instance);
  return Vx::Tests::Activate(name, __uuidof(IInspectable), reinterpret_cast<void**>(instance));
}

HRESULT WINAPI __wrap_RoGetActivationFactory(HSTRING name, REFIID iid, void** factory) {
  if (Vx::Tests::runtime == nullptr) return __real_RoGetActivationFactory(name, iid, factory);
  return Vx::Tests::Activate(name, iid, factory);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
