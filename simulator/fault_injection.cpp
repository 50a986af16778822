#include "simulator/fault_injection.h"

#include <utility>

#include "platform/app_services.h"
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
#include "platform/threads.h"
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

// The result of a refused call.
template <typename Answer>
struct Refusal {
  static Answer Make() { return Answer{}; }
};
template <typename T>
struct Refusal<Result<T>> {
  static Result<T> Make() { return Result<T>::Failure(kDenied); }
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

// A capability with faults: what it stands in front of, and who decides.
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

class FaultyApiSets final : public Decorator<Platform::ApiSets> {
 public:
  using Decorator::Decorator;
  bool IsPresent(const std::wstring& name) const override {
    return Or("ApiSets.IsPresent", [&] { return inner.IsPresent(name); });
  }
};

class FaultyAppService final : public Platform::AppService {
 public:
  FaultyAppService(std::unique_ptr<AppService> behind, FaultInjection& decider)
      : inner(std::move(behind)), faults(decider) {}
  std::pair<int, std::wstring> Send(const std::wstring& text) override {
    if (faults.Fails("AppService.Send")) return {kNotSent, {}};
    return inner->Send(text);
  }
  void SystemRestarted() override { inner->SystemRestarted(); }

 private:
  std::unique_ptr<AppService> inner;
  FaultInjection& faults;
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
  Result<UniqueHandle> MakeTimer() override {
    return Or("Clock.MakeTimer", [&] { return inner.MakeTimer(); });
  }
  ErrorCode SetTimer(RawHandle timer, Duration due) override {
    return Or("Clock.SetTimer", [&] { return inner.SetTimer(timer, due); });
  }
  void WorkerStarting() override { inner.WorkerStarting(); }
  void WorkerStarted() override { inner.WorkerStarted(); }
  void WorkerNotStarted() override { inner.WorkerNotStarted(); }
  void WorkerEnded() override { inner.WorkerEnded(); }

 private:
  // A refused wait fails after half of its time.
  Platform::WaitResult Fail(Duration length) {
    inner.Sleep(length / 2);
    return {Platform::WaitOutcome::Failed, 0xFFFFFFFF, kDenied};
  }
};

class FaultyCom final : public Decorator<Platform::Com> {
 public:
  using Decorator::Decorator;
  std::int32_t InitializeMultithreaded() override {
    return Or("Com.InitializeMultithreaded", [&] { return inner.InitializeMultithreaded(); });
  }
  void Uninitialize() override { inner.Uninitialize(); }
  std::int32_t InitializeSecurity(Platform::Cloaking cloaking) override {
    return Or("Com.InitializeSecurity", [&] { return inner.InitializeSecurity(cloaking); });
  }
  std::int32_t CreateWbemLocator(IWbemLocator** locator) override {
    return Or("Com.CreateWbemLocator", [&] { return inner.CreateWbemLocator(locator); });
  }
  std::int32_t SetProxyBlanket(IUnknown* proxy) override {
    return Or("Com.SetProxyBlanket", [&] { return inner.SetProxyBlanket(proxy); });
  }
  wchar_t* MakeText(const wchar_t* text) override {
    return Or("Com.MakeText", [&] { return inner.MakeText(text); });
  }
  tagSAFEARRAY* MakeByteArray(std::uint32_t count) override {
    return Or("Com.MakeByteArray", [&] { return inner.MakeByteArray(count); });
  }
  std::int32_t PutByte(tagSAFEARRAY* bytes, std::int32_t index, std::uint8_t value) override {
    return Or("Com.PutByte", [&] { return inner.PutByte(bytes, index, value); });
  }
};

class FaultyDataProtection final : public Decorator<Platform::DataProtection> {
 public:
  using Decorator::Decorator;
  Result<Bytes> Protect(std::span<const std::byte> plain,
                        const std::wstring& description) const override {
    return Or("DataProtection.Protect", [&] { return inner.Protect(plain, description); });
  }
  Result<Bytes> Unprotect(std::span<const std::byte> sealed) const override {
    return Or("DataProtection.Unprotect", [&] { return inner.Unprotect(sealed); });
  }
};

class FaultyEnvironment final : public Decorator<Platform::Environment> {
 public:
  using Decorator::Decorator;
  Result<std::wstring> Expand(const std::wstring& text, std::size_t maxChars) const override {
    return Or("Environment.Expand", [&] { return inner.Expand(text, maxChars); });
  }
  Result<std::wstring> ExpandForUser(RawHandle token, const std::wstring& text,
                                     std::size_t maxChars) const override {
    return Or("Environment.ExpandForUser",
              [&] { return inner.ExpandForUser(token, text, maxChars); });
  }
  Result<std::vector<wchar_t>> Block(RawHandle token) const override {
    return Or("Environment.Block", [&] { return inner.Block(token); });
  }
};

class FaultyFileHandle final : public Platform::FileHandle {
  template <typename Call>
  auto Or(const char* name, Call&& call) const {
    using Answer = decltype(call());
    return faults.Fails(name) ? Refusal<Answer>::Make() : call();
  }

 public:
  FaultyFileHandle(std::unique_ptr<FileHandle> behind, FaultInjection& decider)
      : inner(std::move(behind)), faults(decider) {}

  Result<Platform::FileFacts> Facts() const override {
    return Or("FileHandle.Facts", [&] { return inner->Facts(); });
  }
  Result<bool> BelongsToSystem() const override {
    return Or("FileHandle.BelongsToSystem", [&] { return inner->BelongsToSystem(); });
  }
  Result<Bytes> Content(std::size_t maxBytes) const override {
    return Or("FileHandle.Content", [&] { return inner->Content(maxBytes); });
  }
  // A refused write has written half, as on a full disk.
  ErrorCode Write(std::span<const std::byte> content) override {
    if (!faults.Fails("FileHandle.Write")) return inner->Write(content);
    inner->Write(content.first(content.size() / 2));
    return kDenied;
  }
  ErrorCode SetSize(std::uint64_t size) override {
    return Or("FileHandle.SetSize", [&] { return inner->SetSize(size); });
  }
  ErrorCode Flush() override {
    return Or("FileHandle.Flush", [&] { return inner->Flush(); });
  }
  ErrorCode MoveOver(const std::wstring& path) override {
    return Or("FileHandle.MoveOver", [&] { return inner->MoveOver(path); });
  }
  ErrorCode Remove() override {
    return Or("FileHandle.Remove", [&] { return inner->Remove(); });
  }

 private:
  std::unique_ptr<FileHandle> inner;
  FaultInjection& faults;
};

class FaultyFiles final : public Decorator<Platform::Files> {
 public:
  using Decorator::Decorator;
  Result<std::uint32_t> Attributes(const std::wstring& path) const override {
    return Or("Files.Attributes", [&] { return inner.Attributes(path); });
  }
  bool ExistsByExactName(const std::wstring& path) const override {
    return Or("Files.ExistsByExactName", [&] { return inner.ExistsByExactName(path); });
  }
  ErrorCode MakeFolder(const std::wstring& path) override {
    return Or("Files.MakeFolder", [&] { return inner.MakeFolder(path); });
  }
  ErrorCode Touch(const std::wstring& path) override {
    return Or("Files.Touch", [&] { return inner.Touch(path); });
  }
  Result<Bytes> Read(const std::wstring& path, std::size_t maxBytes) const override {
    return Or("Files.Read", [&] { return inner.Read(path, maxBytes); });
  }
  ErrorCode Overwrite(const std::wstring& path, std::span<const std::byte> content) override {
    return Or("Files.Overwrite", [&] { return inner.Overwrite(path, content); });
  }
  ErrorCode MoveOver(const std::wstring& from, const std::wstring& to) override {
    return Or("Files.MoveOver", [&] { return inner.MoveOver(from, to); });
  }
  ErrorCode Remove(const std::wstring& path) override {
    return Or("Files.Remove", [&] { return inner.Remove(path); });
  }
  Result<UniqueHandle> OpenReadLocked(const std::wstring& path) const override {
    return Or("Files.OpenReadLocked", [&] { return inner.OpenReadLocked(path); });
  }
  Result<Bytes> Sha256(const std::wstring& path) const override {
    return Or("Files.Sha256", [&] { return inner.Sha256(path); });
  }
  Result<std::wstring> FullPath(const std::wstring& path) const override {
    return Or("Files.FullPath", [&] { return inner.FullPath(path); });
  }
  Result<std::wstring> FinalPath(const std::wstring& path) const override {
    return Or("Files.FinalPath", [&] { return inner.FinalPath(path); });
  }
  Result<std::wstring> FinalPathOf(Platform::RawHandle file) const override {
    return Or("Files.FinalPathOf", [&] { return inner.FinalPathOf(file); });
  }
  bool IsElsewhere(const std::wstring& path) const override { return inner.IsElsewhere(path); }

  Result<Platform::AccessList> FolderAccess(const std::wstring& folder) const override {
    return Or("Files.FolderAccess", [&] { return inner.FolderAccess(folder); });
  }
  Opened Open(const std::wstring& path, Platform::FileUse use) override {
    return Wrapped(Or("Files.Open", [&] { return inner.Open(path, use); }));
  }
  Opened Create(const std::wstring& path, const std::wstring& accessLike) override {
    return Wrapped(Or("Files.Create", [&] { return inner.Create(path, accessLike); }));
  }
  Result<std::vector<std::wstring>> Siblings(const std::wstring& path) const override {
    return Or("Files.Siblings", [&] { return inner.Siblings(path); });
  }

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
  Result<UniqueHandle> MakeMutex(const std::wstring& name) override {
    return Or("KernelObjects.MakeMutex", [&] { return inner.MakeMutex(name); });
  }
  Result<Locked> LockMutex(RawHandle mutex) override {
    return Or("KernelObjects.LockMutex", [&] { return inner.LockMutex(mutex); });
  }
  // A refused unlock is one that has happened: a mutex that stays locked would stop the walk.
  ErrorCode UnlockMutex(RawHandle mutex) override {
    const ErrorCode error = inner.UnlockMutex(mutex);
    return Or("KernelObjects.UnlockMutex", [&] { return error; });
  }
  Result<UniqueHandle> MakeManualEvent(const std::wstring& name) override {
    return Or("KernelObjects.MakeManualEvent", [&] { return inner.MakeManualEvent(name); });
  }
  ErrorCode Signal(RawHandle event) override { return inner.Signal(event); }
};

class FaultyLockdownLibrary final : public Platform::LockdownLibrary {
 public:
  FaultyLockdownLibrary(std::unique_ptr<LockdownLibrary> behind, FaultInjection& decider)
      : inner(std::move(behind)), faults(decider) {}
  std::int32_t QueryMode(std::int32_t& mode) const override {
    return faults.Fails("LockdownLibrary.QueryMode") ? kDeniedResult : inner->QueryMode(mode);
  }

 private:
  std::unique_ptr<LockdownLibrary> inner;
  FaultInjection& faults;
};

class FaultyLockdownLibraries final : public Decorator<Platform::LockdownLibraries> {
 public:
  using Decorator::Decorator;
  Result<std::unique_ptr<Platform::LockdownLibrary>> Load(const std::wstring& fullPath) override {
    auto loaded = Or("LockdownLibraries.Load", [&] { return inner.Load(fullPath); });
    if (!loaded) return loaded;
    std::unique_ptr<Platform::LockdownLibrary> library =
        std::make_unique<FaultyLockdownLibrary>(*std::move(loaded), faults);
    return library;
  }
};

class FaultyOobe final : public Decorator<Platform::Oobe> {
 public:
  using Decorator::Decorator;
  State Query() const override {
    return Or("Oobe.Query", [&] { return inner.Query(); });
  }
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

class FaultyPackageCatalog final : public Platform::PackageCatalog {
 public:
  FaultyPackageCatalog(std::shared_ptr<PackageCatalog> behind, FaultInjection& decider)
      : inner(std::move(behind)), faults(decider) {}
  Token AddUninstalling(UninstallingHandler handler) override {
    if (faults.Fails("PackageCatalog.AddUninstalling")) Throw();
    return inner->AddUninstalling([&decider = faults, notify = std::move(handler)](
                                      const Platform::PackageUninstall& uninstall) {
      notify(FaultyPackageUninstall(uninstall, decider));
    });
  }
  void RemoveUninstalling(Token token) noexcept override { inner->RemoveUninstalling(token); }

 private:
  std::shared_ptr<PackageCatalog> inner;
  FaultInjection& faults;
};

class FaultyPackages final : public Decorator<Platform::Packages> {
 public:
  using Decorator::Decorator;
  FamilyQuery FindByFamily(const std::wstring& familyName) const override {
    if (faults.Fails("Packages.FindByFamily")) return {kDenied, 0, 0, {}};
    FamilyQuery query = inner.FindByFamily(familyName);
    // Windows is asked twice: for the room that the names need, and for the names.
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
  Result<std::int32_t> StagedOrigin(const std::wstring& fullName) const override {
    return Or("Packages.StagedOrigin", [&] { return inner.StagedOrigin(fullName); });
  }
  Result<std::uint64_t> Version(const std::wstring& fullName) const override {
    return Or("Packages.Version", [&] { return inner.Version(fullName); });
  }
  std::vector<std::wstring> FindForAllUsers(const std::wstring& familyName) const override {
    return OrThrow("Packages.FindForAllUsers", [&] { return inner.FindForAllUsers(familyName); });
  }
  Result<std::wstring> AccountSid(const std::wstring& account) const override {
    return Or("Packages.AccountSid", [&] { return inner.AccountSid(account); });
  }
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
  Result<std::uint32_t> Start(RawHandle token, const Platform::ProcessStart& start) override {
    return Or("Processes.Start", [&] { return inner.Start(token, start); });
  }
  std::vector<std::uint32_t> Ids(std::size_t limit) const override {
    return Or("Processes.Ids", [&] { return inner.Ids(limit); });
  }
  std::optional<std::wstring> ImagePath(std::uint32_t id) const override {
    return Or("Processes.ImagePath", [&] { return inner.ImagePath(id); });
  }
  std::optional<std::uint32_t> Session(std::uint32_t id) const override {
    return Or("Processes.Session", [&] { return inner.Session(id); });
  }
  Result<UniqueHandle> PrimaryToken(std::uint32_t id) const override {
    return Or("Processes.PrimaryToken", [&] { return inner.PrimaryToken(id); });
  }
};

class FaultyRegistry final : public Decorator<Platform::Registry> {
 public:
  using Decorator::Decorator;
  Result<Platform::RegistryValue> Read(const std::wstring& key,
                                       const std::wstring& value) const override {
    return Or("Registry.Read", [&] { return inner.Read(key, value); });
  }
  bool Exists(const std::wstring& key, const std::wstring& value) const override {
    return Or("Registry.Exists", [&] { return inner.Exists(key, value); });
  }
};

class FaultySessions final : public Decorator<Platform::Sessions> {
 public:
  using Decorator::Decorator;
  std::uint32_t ActiveConsoleSession() const override {
    if (faults.Fails("Sessions.ActiveConsoleSession")) return Platform::kNoSession;
    return inner.ActiveConsoleSession();
  }
  Result<UniqueHandle> QueryUserToken(std::uint32_t session) const override {
    return Or("Sessions.QueryUserToken", [&] { return inner.QueryUserToken(session); });
  }
  Result<UniqueHandle> DuplicateUserToken(RawHandle token,
                                          Platform::TokenType type) const override {
    return Or("Sessions.DuplicateUserToken", [&] { return inner.DuplicateUserToken(token, type); });
  }
  Result<std::uint64_t> LogonOf(RawHandle token) const override {
    return Or("Sessions.LogonOf", [&] { return inner.LogonOf(token); });
  }
  Result<std::wstring> SidOf(RawHandle token) const override {
    return Or("Sessions.SidOf", [&] { return inner.SidOf(token); });
  }
  Result<std::wstring> QueryText(std::uint32_t session, Platform::SessionText what) const override {
    return Or("Sessions.QueryText", [&] { return inner.QueryText(session, what); });
  }
  ErrorCode Impersonate(RawHandle token) override {
    return Or("Sessions.Impersonate", [&] { return inner.Impersonate(token); });
  }
  // A refused revert is reported, but happens: the walk goes on as the service itself.
  ErrorCode Revert() override {
    const ErrorCode error = inner.Revert();
    return Or("Sessions.Revert", [&] { return error; });
  }
  Result<UniqueHandle> ThreadToken() const override {
    return Or("Sessions.ThreadToken", [&] { return inner.ThreadToken(); });
  }
  ErrorCode Resume(RawHandle threadToken) override {
    return Or("Sessions.Resume", [&] { return inner.Resume(threadToken); });
  }
  Result<bool> ProcessIsLocalSystem() const override {
    return Or("Sessions.ProcessIsLocalSystem", [&] { return inner.ProcessIsLocalSystem(); });
  }
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
    if (faults.Fails("Threads.Start")) return Result<UniqueHandle>::Failure(kTryAgain);
    return inner.Start(std::move(body));
  }
  void CancelIo(RawHandle thread) override {
    if (!faults.Fails("Threads.CancelIo")) inner.CancelIo(thread);
  }
};

class FaultyTrustProvider final : public Decorator<Platform::TrustProvider> {
 public:
  using Decorator::Decorator;
  Platform::SignatureVerdict VerifyEmbedded(const std::wstring& path,
                                            std::uint32_t index) const override {
    return Or("TrustProvider.VerifyEmbedded", [&] { return inner.VerifyEmbedded(path, index); });
  }
  std::optional<Platform::CatalogHit> FindCatalog(
      const std::wstring& path, Platform::CatalogFailure& failure) const override {
    if (faults.Fails("TrustProvider.FindCatalog")) {
      failure = {.step = Platform::CatalogStep::OpenFile, .error = kDenied};
      return std::nullopt;
    }
    return inner.FindCatalog(path, failure);
  }
  Platform::SignatureVerdict VerifyInCatalog(const Platform::CatalogHit& catalog,
                                             std::uint32_t index) const override {
    return Or("TrustProvider.VerifyInCatalog",
              [&] { return inner.VerifyInCatalog(catalog, index); });
  }
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
  Decorate<FaultyLockdownLibraries>(machine.lockdownLibraries);
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
