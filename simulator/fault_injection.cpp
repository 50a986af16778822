#include "simulator/fault_injection.h"

#include <utility>

#include "platform/clock.h"
#include "platform/com.h"
#include "platform/data_protection.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/kernel_objects.h"
#include "platform/packages.h"
#include "platform/processes.h"
#include "platform/registry.h"
#include "platform/sessions.h"
#include "platform/system_services.h"
#include "platform/thread.h"
#include "platform/trust_provider.h"
#include "platform/windows_runtime_error.h"

namespace Vx::Simulator {

namespace {

using Platform::ErrorCode;
using Platform::RawHandle;
using Platform::Result;
using Platform::UniqueHandle;

using Bytes = std::vector<std::byte>;

constexpr ErrorCode kDenied = 5;  // ERROR_ACCESS_DENIED
constexpr auto kDeniedResult = static_cast<std::int32_t>(0x80070005);
constexpr int kNotSent = 1;
constexpr int kTryAgain = 11;  // EAGAIN
constexpr std::uint32_t kNotImplemented = 0xC0000002;

// The value that a failed call returns.
template <typename Answer>
struct Refusal {
  static Answer Make() { return Answer{}; }
};
template <typename T>
struct Refusal<Result<T>> {
  static Result<T> Make() { return Platform::Failure(kDenied); }
};
template <>
struct Refusal<ErrorCode> {
  static ErrorCode Make() { return kDenied; }
};
template <>
struct Refusal<std::int32_t> {
  static std::int32_t Make() { return kDeniedResult; }
};
template <>
struct Refusal<Platform::SignatureVerdict> {
  static Platform::SignatureVerdict Make() {
    return {.result = kDeniedResult, .secondaryCount = 0, .signer = {}};
  }
};

[[noreturn]] void Throw() {
  throw Platform::WindowsRuntimeError(kDeniedResult, L"refused");
}

// Wraps a capability and adds faults to it.
template <typename Capability>
class Decorator : public Capability {
 public:
  Decorator(Capability& behind, FaultInjection& decider) : inner(behind), faults(decider) {}

 protected:
  template <typename Call>
  auto Or(const char* name, Call&& call) const {
    using Answer = decltype(call());
    return faults.Fails(name) ? Refusal<Answer>::Make() : call();
  }
  template <typename Call>
  auto OrThrow(const char* name, Call&& call) const {
    if (faults.Fails(name)) Throw();
    return call();
  }

  Capability& inner;
  FaultInjection& faults;
};

// Wraps an object that a capability returned, and owns it.
template <typename Capability>
class OwningDecorator : public Decorator<Capability> {
 public:
  OwningDecorator(std::shared_ptr<Capability> behind, FaultInjection& decider)
      : Decorator<Capability>(*behind, decider), owner(std::move(behind)) {}

 private:
  std::shared_ptr<Capability> owner;
};

// An operation that is either forwarded or fails with its result type's failure value.
#define REFUSABLE(Interface, Answer, Name, Parameters, Arguments, Qualifier) \
  Answer Name Parameters Qualifier override {                                \
    return Or(#Interface "." #Name, [&] { return inner.Name Arguments; });   \
  }

class FaultyApiSets final : public Decorator<Platform::ApiSets> {
 public:
  using Decorator::Decorator;
  REFUSABLE(ApiSets, bool, IsPresent, (const std::wstring& name), (name), const)
};

class FaultyAppService final : public OwningDecorator<Platform::AppService> {
 public:
  using OwningDecorator::OwningDecorator;
  std::pair<int, std::wstring> Send(const std::wstring& text) override {
    if (faults.Fails("AppService.Send")) return {kNotSent, {}};
    return inner.Send(text);
  }
  void SystemRestarted() override { inner.SystemRestarted(); }
};

class FaultyAppServices final : public Decorator<Platform::AppServices> {
 public:
  using Decorator::Decorator;
  std::unique_ptr<Platform::AppService> Open(const std::wstring& packageFamilyName,
                                             const std::wstring& appServiceName) override {
    return std::make_unique<FaultyAppService>(inner.Open(packageFamilyName, appServiceName),
                                              faults);
  }
};

class FaultyClock final : public Decorator<Platform::Clock> {
 public:
  using Decorator::Decorator;
  std::uint64_t TickCount() const override { return inner.TickCount(); }
  std::uint64_t UtcFileTime() const override { return inner.UtcFileTime(); }
  void Sleep(Duration length) override { inner.Sleep(length); }
  Platform::WaitResult Wait(RawHandle handle, std::optional<Duration> length) override {
    if (faults.Fails("Clock.Wait")) return Fail(length.value_or(Duration(0)));
    return inner.Wait(handle, length);
  }
  Platform::WaitResult WaitForEither(RawHandle first, RawHandle second, Duration length) override {
    if (faults.Fails("Clock.Wait")) return Fail(length);
    return inner.WaitForEither(first, second, length);
  }
  REFUSABLE(Clock, Result<UniqueHandle>, MakeTimer, (), (), )
  REFUSABLE(Clock, ErrorCode, SetTimer, (RawHandle timer, Duration due), (timer, due), )
  void WorkerStarting() override { inner.WorkerStarting(); }
  void WorkerStarted() override { inner.WorkerStarted(); }
  void WorkerNotStarted() override { inner.WorkerNotStarted(); }
  void WorkerEnded() override { inner.WorkerEnded(); }

 private:
  // Fails halfway through the wait.
  Platform::WaitResult Fail(Duration length) {
    inner.Sleep(length / 2);
    return {Platform::WaitOutcome::Failed, 0xFFFFFFFF, kDenied};
  }
};

class FaultyCom final : public Decorator<Platform::Com> {
 public:
  using Decorator::Decorator;
  REFUSABLE(Com, std::int32_t, InitializeMultithreaded, (), (), )
  void Uninitialize() override { inner.Uninitialize(); }
  REFUSABLE(Com, std::int32_t, InitializeSecurity, (Platform::Cloaking cloaking), (cloaking), )
  REFUSABLE(Com, std::int32_t, CreateWbemLocator, (IWbemLocator * *locator), (locator), )
  REFUSABLE(Com, std::int32_t, SetProxyBlanket, (IUnknown * proxy), (proxy), )
  wchar_t* MakeText(const wchar_t* text) override {
    return Or("Com.MakeText", [&] { return inner.MakeText(text); });
  }
  tagSAFEARRAY* MakeByteArray(std::uint32_t count) override {
    return Or("Com.MakeByteArray", [&] { return inner.MakeByteArray(count); });
  }
  REFUSABLE(Com, std::int32_t, PutByte,
            (tagSAFEARRAY * bytes, std::int32_t index, std::uint8_t value), (bytes, index, value), )
};

class FaultyDataProtection final : public Decorator<Platform::DataProtection> {
 public:
  using Decorator::Decorator;
  REFUSABLE(DataProtection, Result<Bytes>, Protect,
            (std::span<const std::byte> plain, const std::wstring& description),
            (plain, description), const)
  REFUSABLE(DataProtection, Result<Bytes>, Unprotect, (std::span<const std::byte> sealed), (sealed),
            const)
};

class FaultyEnvironment final : public Decorator<Platform::Environment> {
 public:
  using Decorator::Decorator;
  REFUSABLE(Environment, Result<std::wstring>, Expand,
            (const std::wstring& text, std::size_t maxChars), (text, maxChars), const)
  REFUSABLE(Environment, Result<std::wstring>, ExpandForUser,
            (RawHandle token, const std::wstring& text, std::size_t maxChars),
            (token, text, maxChars), const)
  REFUSABLE(Environment, Result<std::vector<wchar_t>>, Block, (RawHandle token), (token), const)
};

class FaultyFileHandle final : public OwningDecorator<Platform::FileHandle> {
 public:
  using OwningDecorator::OwningDecorator;
  REFUSABLE(FileHandle, Result<Platform::FileFacts>, Facts, (), (), const)
  REFUSABLE(FileHandle, Result<bool>, HasTrustedOwner, (), (), const)
  REFUSABLE(FileHandle, Result<Bytes>, Content, (std::size_t maxBytes), (maxBytes), const)
  // Writes half before failing, as on a full disk.
  ErrorCode Write(std::span<const std::byte> content) override {
    if (!faults.Fails("FileHandle.Write")) return inner.Write(content);
    inner.Write(content.first(content.size() / 2));
    return kDenied;
  }
  REFUSABLE(FileHandle, ErrorCode, SetSize, (std::uint64_t size), (size), )
  REFUSABLE(FileHandle, ErrorCode, Flush, (), (), )
  REFUSABLE(FileHandle, ErrorCode, MoveOver, (const std::wstring& path), (path), )
  REFUSABLE(FileHandle, ErrorCode, Remove, (), (), )
};

class FaultyFiles final : public Decorator<Platform::Files> {
 public:
  using Decorator::Decorator;
  REFUSABLE(Files, Result<std::uint32_t>, Attributes, (const std::wstring& path), (path), const)
  REFUSABLE(Files, bool, ExistsByExactName, (const std::wstring& path), (path), const)
  REFUSABLE(Files, ErrorCode, MakeFolder, (const std::wstring& path, Platform::NewFolder access),
            (path, access), )
  REFUSABLE(Files, ErrorCode, Touch, (const std::wstring& path), (path), )
  REFUSABLE(Files, Result<Bytes>, Read, (const std::wstring& path, std::size_t maxBytes),
            (path, maxBytes), const)
  REFUSABLE(Files, ErrorCode, Overwrite,
            (const std::wstring& path, std::span<const std::byte> content), (path, content), )
  REFUSABLE(Files, ErrorCode, MoveOver, (const std::wstring& from, const std::wstring& to),
            (from, to), )
  REFUSABLE(Files, ErrorCode, Remove, (const std::wstring& path), (path), )
  REFUSABLE(Files, Result<UniqueHandle>, OpenReadLocked, (const std::wstring& path), (path), const)
  REFUSABLE(Files, Result<Bytes>, Sha256, (const std::wstring& path), (path), const)
  REFUSABLE(Files, Result<std::wstring>, FullPath, (const std::wstring& path), (path), const)
  REFUSABLE(Files, Result<std::wstring>, FinalPath, (const std::wstring& path), (path), const)
  REFUSABLE(Files, Result<std::wstring>, FinalPathOf, (Platform::RawHandle file), (file), const)
  REFUSABLE(Files, Result<Platform::FileIdentity>, IdentityOf, (Platform::RawHandle file), (file),
            const)
  bool IsElsewhere(const std::wstring& path) const override { return inner.IsElsewhere(path); }

  REFUSABLE(Files, Result<Platform::AccessList>, FolderAccess, (const std::wstring& folder),
            (folder), const)
  Opened Open(const std::wstring& path, Platform::FileUse use) override {
    return Wrapped(Or("Files.Open", [&] { return inner.Open(path, use); }));
  }
  Opened Create(const std::wstring& path, const std::wstring& accessLike) override {
    return Wrapped(Or("Files.Create", [&] { return inner.Create(path, accessLike); }));
  }
  REFUSABLE(Files, Result<std::vector<std::wstring>>, Siblings, (const std::wstring& path), (path),
            const)

 private:
  Opened Wrapped(Opened opened) {
    if (!opened) return opened;
    std::unique_ptr<Platform::FileHandle> file =
        std::make_unique<FaultyFileHandle>(*std::move(opened), faults);
    return file;
  }
};

class FaultyKernelObjects final : public Decorator<Platform::KernelObjects> {
 public:
  using Decorator::Decorator;
  REFUSABLE(KernelObjects, Result<UniqueHandle>, MakeMutex, (const std::wstring& name), (name), )
  REFUSABLE(KernelObjects, Result<Locked>, LockMutex, (RawHandle mutex), (mutex), )
  // Unlocks before failing, because a mutex that stays locked would hang the fault walk.
  ErrorCode UnlockMutex(RawHandle mutex) override {
    const ErrorCode error = inner.UnlockMutex(mutex);
    return Or("KernelObjects.UnlockMutex", [&] { return error; });
  }
  REFUSABLE(KernelObjects, Result<UniqueHandle>, MakeManualEvent, (const std::wstring& name),
            (name), )
  ErrorCode Signal(RawHandle event) override { return inner.Signal(event); }
};

class FaultyLockdownPolicy final : public Decorator<Platform::LockdownPolicy> {
 public:
  using Decorator::Decorator;
  Result<std::int32_t> QueryMode(const std::wstring& fullPath, std::int32_t& mode) const override {
    if (faults.Fails("LockdownPolicy.Load")) return Platform::Failure(kDenied);
    if (faults.Fails("LockdownPolicy.QueryMode")) return kDeniedResult;
    return inner.QueryMode(fullPath, mode);
  }
};

class FaultyOobe final : public Decorator<Platform::Oobe> {
 public:
  using Decorator::Decorator;
  REFUSABLE(Oobe, State, Query, (), (), const)
};

class FaultyPackageUninstall final : public Platform::PackageUninstall {
 public:
  FaultyPackageUninstall(const PackageUninstall& behind, FaultInjection& decider)
      : inner(behind), faults(decider) {}
  std::wstring FamilyName() const override {
    if (faults.Fails("PackageUninstall.FamilyName")) Throw();
    return inner.FamilyName();
  }
  bool IsComplete() const override {
    if (faults.Fails("PackageUninstall.IsComplete")) Throw();
    return inner.IsComplete();
  }

 private:
  const PackageUninstall& inner;
  FaultInjection& faults;
};

class FaultyPackageCatalog final : public OwningDecorator<Platform::PackageCatalog> {
 public:
  using OwningDecorator::OwningDecorator;
  Token AddUninstalling(UninstallingHandler handler) override {
    if (faults.Fails("PackageCatalog.AddUninstalling")) Throw();
    return inner.AddUninstalling([&decider = faults, notify = std::move(handler)](
                                     const Platform::PackageUninstall& uninstall) {
      notify(FaultyPackageUninstall(uninstall, decider));
    });
  }
  void RemoveUninstalling(Token token) noexcept override { inner.RemoveUninstalling(token); }
};

class FaultyPackages final : public Decorator<Platform::Packages> {
 public:
  using Decorator::Decorator;
  FamilyQuery FindByFamily(const std::wstring& familyName) const override {
    if (faults.Fails("Packages.FindByFamily")) return {kDenied, 0, 0, {}};
    FamilyQuery query = inner.FindByFamily(familyName);
    // Windows is called twice: for the size of the buffer and for the names.
    if (!query.fullNames.empty() && faults.Fails("Packages.FamilyNames")) {
      query.error = kDenied;
      query.fullNames.clear();
    }
    return query;
  }
  PathQuery PathByFullName(const std::wstring& fullName) const override {
    if (faults.Fails("Packages.PathByFullName")) return {kDenied, 0, {}};
    return inner.PathByFullName(fullName);
  }
  REFUSABLE(Packages, Result<std::int32_t>, StagedOrigin, (const std::wstring& fullName),
            (fullName), const)
  REFUSABLE(Packages, Result<std::uint64_t>, Version, (const std::wstring& fullName), (fullName),
            const)
  std::vector<std::wstring> FindForAllUsers(const std::wstring& familyName) const override {
    return OrThrow("Packages.FindForAllUsers", [&] { return inner.FindForAllUsers(familyName); });
  }
  REFUSABLE(Packages, Result<std::wstring>, AccountSid, (const std::wstring& account), (account),
            const)
  std::vector<std::wstring> FindForUser(const std::wstring& sid,
                                        const std::wstring& familyName) const override {
    return OrThrow("Packages.FindForUser", [&] { return inner.FindForUser(sid, familyName); });
  }
  Platform::PackageRegistration Register(const std::wstring& fullName,
                                         std::chrono::milliseconds limit) override {
    return OrThrow("Packages.Register", [&] { return inner.Register(fullName, limit); });
  }
  std::shared_ptr<Platform::PackageCatalog> OpenCatalogForCurrentUser() override {
    return OrThrow("Packages.OpenCatalogForCurrentUser", [&] {
      return std::make_shared<FaultyPackageCatalog>(inner.OpenCatalogForCurrentUser(), faults);
    });
  }
};

class FaultyProcesses final : public Decorator<Platform::Processes> {
 public:
  using Decorator::Decorator;
  REFUSABLE(Processes, Result<std::uint32_t>, Start,
            (RawHandle token, const Platform::ProcessStart& start), (token, start), )
  REFUSABLE(Processes, std::vector<std::uint32_t>, Ids, (std::size_t limit), (limit), const)
  REFUSABLE(Processes, std::optional<std::wstring>, ImagePath, (std::uint32_t id), (id), const)
  REFUSABLE(Processes, std::optional<std::uint32_t>, Session, (std::uint32_t id), (id), const)
  REFUSABLE(Processes, Result<UniqueHandle>, PrimaryToken, (std::uint32_t id), (id), const)
};

class FaultyRegistry final : public Decorator<Platform::Registry> {
 public:
  using Decorator::Decorator;
  REFUSABLE(Registry, Result<Platform::RegistryValue>, Read,
            (const std::wstring& key, const std::wstring& value), (key, value), const)
  REFUSABLE(Registry, bool, Exists, (const std::wstring& key, const std::wstring& value),
            (key, value), const)
};

class FaultySessions final : public Decorator<Platform::Sessions> {
 public:
  using Decorator::Decorator;
  std::uint32_t ActiveConsoleSession() const override {
    if (faults.Fails("Sessions.ActiveConsoleSession")) return Platform::kNoSession;
    return inner.ActiveConsoleSession();
  }
  REFUSABLE(Sessions, Result<UniqueHandle>, QueryUserToken, (std::uint32_t session), (session),
            const)
  REFUSABLE(Sessions, Result<UniqueHandle>, DuplicateUserToken,
            (RawHandle token, Platform::TokenType type), (token, type), const)
  REFUSABLE(Sessions, Result<std::uint64_t>, LogonOf, (RawHandle token), (token), const)
  REFUSABLE(Sessions, Result<std::wstring>, SidOf, (RawHandle token), (token), const)
  REFUSABLE(Sessions, Result<std::wstring>, QueryText,
            (std::uint32_t session, Platform::SessionText what), (session, what), const)
  REFUSABLE(Sessions, ErrorCode, Impersonate, (RawHandle token), (token), )
  // Reverts before failing, so that the fault walk goes on under the service's identity.
  ErrorCode Revert() override {
    const ErrorCode error = inner.Revert();
    return Or("Sessions.Revert", [&] { return error; });
  }
  REFUSABLE(Sessions, Result<UniqueHandle>, ThreadToken, (), (), const)
  REFUSABLE(Sessions, ErrorCode, Resume, (RawHandle threadToken), (threadToken), )
  REFUSABLE(Sessions, Result<bool>, ProcessIsLocalSystem, (), (), const)
};

class FaultySystemTriggers final : public Decorator<Platform::SystemTriggers> {
 public:
  using Decorator::Decorator;
  std::uint32_t Raise(const std::wstring& triggerId) override {
    if (faults.Fails("SystemTriggers.Raise")) return kNotImplemented;
    return inner.Raise(triggerId);
  }
};

class FaultyThreads final : public Decorator<Platform::Threads> {
 public:
  using Decorator::Decorator;
  Result<UniqueHandle> Start(std::function<void()> body) override {
    if (faults.Fails("Threads.Start")) return Platform::Failure(kTryAgain);
    return inner.Start(std::move(body));
  }
  void CancelIo(RawHandle thread) override {
    if (!faults.Fails("Threads.CancelIo")) inner.CancelIo(thread);
  }
};

class FaultyTrustProvider final : public Decorator<Platform::TrustProvider> {
 public:
  using Decorator::Decorator;
  REFUSABLE(TrustProvider, Platform::SignatureVerdict, VerifyEmbedded,
            (const std::wstring& path, std::uint32_t index), (path, index), const)
  std::optional<Platform::CatalogHit> FindCatalog(
      const std::wstring& path, Platform::CatalogFailure& failure) const override {
    if (faults.Fails("TrustProvider.FindCatalog")) {
      failure = {.step = Platform::CatalogStep::OpenFile, .error = kDenied};
      return std::nullopt;
    }
    return inner.FindCatalog(path, failure);
  }
  REFUSABLE(TrustProvider, Platform::SignatureVerdict, VerifyInCatalog,
            (const Platform::CatalogHit& catalog, std::uint32_t index), (catalog, index), const)
};

}  // namespace

template <typename Faulty, typename Capability>
void FaultInjection::Decorate(Capability*& capability) {
  auto decorator = std::make_shared<Faulty>(*capability, *this);
  capability = decorator.get();
  decorators.push_back(std::move(decorator));
}

void FaultInjection::Install(Platform::Machine& machine) {
  Decorate<FaultyApiSets>(machine.apiSets);
  Decorate<FaultyAppServices>(machine.appServices);
  Decorate<FaultyClock>(machine.clock);
  Decorate<FaultyCom>(machine.com);
  Decorate<FaultyDataProtection>(machine.dataProtection);
  Decorate<FaultyEnvironment>(machine.environment);
  Decorate<FaultyFiles>(machine.files);
  Decorate<FaultyKernelObjects>(machine.kernelObjects);
  Decorate<FaultyLockdownPolicy>(machine.lockdownPolicy);
  Decorate<FaultyOobe>(machine.oobe);
  Decorate<FaultyPackages>(machine.packages);
  Decorate<FaultyProcesses>(machine.processes);
  Decorate<FaultyRegistry>(machine.registry);
  Decorate<FaultySessions>(machine.sessions);
  Decorate<FaultySystemTriggers>(machine.systemTriggers);
  Decorate<FaultyThreads>(machine.threads);
  Decorate<FaultyTrustProvider>(machine.trustProvider);
}

void FaultInjection::FailCall(std::size_t index) {
  const std::lock_guard guard(mutex);
  calls.clear();
  failingName.clear();
  failingCall = index;
}

void FaultInjection::FailNamed(const std::string& name, std::size_t skip) {
  const std::lock_guard guard(mutex);
  calls.clear();
  failingCall.reset();
  failingName = name;
  skipped = skip;
  used = false;
}

std::string FaultInjection::Unused() const {
  const std::lock_guard guard(mutex);
  return used ? std::string() : failingName;
}

void FaultInjection::Clear() {
  const std::lock_guard guard(mutex);
  calls.clear();
  failingCall.reset();
  failingName.clear();
}

std::vector<std::string> FaultInjection::Calls() const {
  const std::lock_guard guard(mutex);
  return calls;
}

bool FaultInjection::Fails(const char* name) {
  const std::lock_guard guard(mutex);
  calls.emplace_back(name);
  if (failingCall) return calls.size() - 1 == *failingCall;
  if (failingName != name) return false;
  used = skipped == 0;
  if (!used) --skipped;
  return used;
}

}  // namespace Vx::Simulator
