#include "events/package_event.h"

#include <atomic>
#include <condition_variable>
#include <exception>
#include <utility>

#include "events/firing_marks.h"
#include "host/logging.h"
#include "json/json_object.h"
#include "platform/clock.h"
#include "platform/console_user.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/sessions.h"
#include "platform/system_services.h"
#include "platform/windows_runtime_error.h"
#include "records/record.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using std::chrono::milliseconds;

constexpr wchar_t kNoSessionApi[] =
    L"Problem in PackageUninstallingPCEvent::PackageUninstallingPCEvent(): WTSQueryUserToken is "
    L"not available on this platform";
constexpr wchar_t kRevertFailed[] =
    L"Problem in PackageUninstallingPCEvent::PackageUninstallingPCEvent(): reverting the "
    L"impersonation failed";
constexpr wchar_t kNotInstalled[] = L"the package is not installed";
constexpr wchar_t kOwnAccountUnknown[] = L"the account of this process cannot be determined";
constexpr wchar_t kNoConsoleUser[] = L"nobody is signed in at the console";
constexpr wchar_t kCannotImpersonate[] = L"the console user cannot be impersonated";
constexpr wchar_t kUnknownEvent[] = L"catalogEvent is unknown";

constexpr wchar_t kInvoked[] =
    L"PackageUninstallingEvent invoked. Searching for PFN: %s, PFN received: %s";
constexpr wchar_t kTookTooLong[] =
    L"PackageUninstallingEvent took more than %i seconds to complete";
constexpr wchar_t kRuntimeError[] = L"PackageUninstallingEvent failed. Message: %s, Code: %i";
constexpr wchar_t kFailed[] = L"PackageUninstallingEvent failed. %S";

constexpr char kUnknown[] = "an exception of an unknown kind";

constexpr auto kUnspecified = static_cast<std::int32_t>(0x80004005);

constexpr milliseconds kWatchStep{5000};
constexpr milliseconds kPollStep{2000};
constexpr int kPolls = 15;
constexpr int kPollSeconds = 30;

const Logging::TraceLogger& Log() {
  return *Logging::LogManager::SetProvider(Logging::kComponentProvider);
}

void ReportRefusedStep(Platform::ActingStep step, Platform::ErrorCode) {
  if (step == Platform::ActingStep::Revert) {
    Log().LogWarning(kRevertFailed);
    return;
  }
  const bool acting = step == Platform::ActingStep::Impersonation;
  throw Platform::WindowsRuntimeError(kConsoleUserUnavailable,
                                      acting ? kCannotImpersonate : kNoConsoleUser);
}

// Catches and logs every exception from `body`. Returns the error code, or 0 if there was none.
template <typename Body>
std::int32_t CatchAndLog(Body&& body) noexcept {
  try {
    body();
    return 0;
  } catch (const Platform::WindowsRuntimeError& error) {
    Log().LogError(kRuntimeError, error.message().c_str(), error.code());
    return error.code();
  } catch (const std::exception& error) {
    Log().LogError(kFailed, error.what());
  } catch (...) {
    Log().LogError(kFailed, kUnknown);
  }
  return kUnspecified;
}

// Polls until the uninstall has completed, for at most half a minute.
void AwaitCompletion(const Platform::PackageUninstall& uninstall) {
  for (int poll = 0; poll < kPolls; ++poll) {
    if (uninstall.IsComplete()) return;
    Platform::CurrentMachine().clock->Sleep(kPollStep);
  }
  Log().LogWarning(kTookTooLong, kPollSeconds);
}

// Locks only during the query, because subscribing and logging off must not wait for a command.
bool IsGone(const std::wstring& familyName) {
  const std::lock_guard guard(PackageUninstallingPCEvent::rLock);
  return Platform::CurrentMachine().packages->FindForAllUsers(familyName).empty();
}

std::uint32_t Code(const Json::JsonObject& document, const std::wstring& key) {
  return Json::TruncateToUint32(document.GetNamedNumber(key));
}

}  // namespace

// Handlers to call after a command has run. Thread-safe.
class CompletionEvent {
 public:
  std::int64_t Add(CompletionHandler handler) {
    const std::lock_guard guard(mutex);
    handlers.push_back(std::move(handler));
    return static_cast<std::int64_t>(handlers.size());
  }

  // Calls every handler added before this call, without holding a lock.
  void Raise() const {
    std::unique_lock guard(mutex);
    const auto called = handlers;
    guard.unlock();
    for (const auto& handler : called) handler({});
  }

 private:
  mutable std::mutex mutex;
  std::vector<CompletionHandler> handlers;
};

// What an uninstall watch waits for, and what it then does.
struct WatchedUninstall {
  std::wstring familyName;
  PackageCatalogEvent event;
  EventCommandPtr command;
  std::shared_ptr<CompletionEvent> completion;
  std::shared_ptr<FiringMark> mark;
  std::wstring subscription;  // its hash
};

// The state shared by the watcher thread and the catalog notifications of one package event. Each
// holds a reference, because a notification in progress may outlive the event object.
class UninstallWatch {
 public:
  explicit UninstallWatch(WatchedUninstall subject) : watched(std::move(subject)) {}

  // The body of the watcher thread: keeps a handler registered with `catalog` until Stop is called.
  // Returns at once if `catalog` is null.
  static void Run(const std::shared_ptr<UninstallWatch>& watch,
                  const std::shared_ptr<Platform::PackageCatalog>& catalog) noexcept {
    bool added = false;
    CatchAndLog([&] {
      if (catalog == nullptr) return;
      const auto token =
          catalog->AddUninstalling([watch](const Platform::PackageUninstall& uninstall) {
            watch->OnUninstalling(uninstall);
          });
      added = true;
      watch->Report(Handler::Added);
      while (!watch->stopping) watch->Pause();
      catalog->RemoveUninstalling(token);
    });
    if (!added) watch->Report(Handler::Refused);
  }

  // Waits until the watcher has added its handler. Returns false if it exits without adding one.
  bool AwaitHandler() {
    std::unique_lock guard(handlerMutex);
    handlerKnown.wait(guard, [this] { return handler != Handler::Awaited; });
    return handler == Handler::Added;
  }

  // Stops the watcher. Later notifications have no effect. One that is waiting for another, or for
  // an uninstall, still finishes, because a log-off does not say whose session ended.
  void Stop() noexcept {
    stopping = true;
    if (stopEvent != nullptr) Platform::CurrentMachine().kernelObjects->Signal(stopEvent.get());
  }

 private:
  enum class Handler : std::uint8_t { Awaited, Added, Refused };

  void Report(Handler outcome) {
    const std::lock_guard guard(handlerMutex);
    handler = outcome;
    handlerKnown.notify_all();
  }

  void Pause() {
    Platform::Clock& clock = *Platform::CurrentMachine().clock;
    if (stopEvent != nullptr &&
        clock.Wait(stopEvent.get(), kWatchStep).outcome != Platform::WaitOutcome::Failed) {
      return;
    }
    clock.Sleep(kWatchStep);
  }

  // Handles one notification, on a system thread.
  void OnUninstalling(const Platform::PackageUninstall& uninstall) noexcept {
    std::optional<Records::Delivery> delivery;
    const std::int32_t failure = CatchAndLog([&] { Handle(uninstall, delivery); });
    if (delivery) delivery->Ends(Records::FailedWith(failure));
  }

  // Creates `delivery` if the notification is about this event's package.
  void Handle(const Platform::PackageUninstall& uninstall,
              std::optional<Records::Delivery>& delivery) {
    // A notification that arrived before a log-off is handled even if it acquires the lock only
    // afterwards, because the package is gone and no further notification will arrive.
    if (stopping) return;
    const std::wstring received = uninstall.FamilyName();
    const auto due = [&] { return IsDue(uninstall, received, delivery); };
    // A notification about another package is only logged, without RunOnce, so that a late run at
    // logon does not wait for it.
    if (received != watched.familyName) {
      due();
      return;
    }
    const auto run = [&] {
      const auto guard = TakeTurn(*watched.command, PackageUninstallingPCEvent::commandTurn);
      delivery->Ends(watched.command->Execute());
    };
    // RunOnce marks the command as run before the handlers are called, so that a failing handler
    // does not make it run again. The handlers also complete a request that an earlier run left
    // stored.
    watched.mark->RunOnce(run, due);
    if (watched.mark->AwaitsCompletion()) watched.completion->Raise();
  }

  // Logs a notification and returns whether the command should run. For Uninstalled, waits until
  // the uninstall is complete and checks that the package is gone. Marks the run as started, so
  // that no other notification starts one.
  bool IsDue(const Platform::PackageUninstall& uninstall, const std::wstring& received,
             std::optional<Records::Delivery>& delivery) const {
    const std::lock_guard guard(PackageUninstallingPCEvent::uninstall_event_mux);
    if (!watched.mark->MayRun()) return false;
    Log().LogInfo(kInvoked, watched.familyName.c_str(), received.c_str());
    if (received != watched.familyName) return false;
    delivery.emplace(Records::Record{.kind = Records::Kind::Uninstall,
                                     .subscription = watched.subscription,
                                     .target = watched.command->Target(),
                                     .package = watched.familyName,
                                     .number = static_cast<std::uint32_t>(watched.event)});
    if (watched.event == PackageCatalogEvent::Uninstalled) {
      delivery->Waits(kPollStep * kPolls);
      AwaitCompletion(uninstall);
      // If another user still has the package, the event stays armed.
      const bool gone = IsGone(watched.familyName);
      if (!gone || !watched.mark->MayRun()) {
        delivery->Ends({Records::Decision::Dropped,
                        gone ? Records::Reason::HasRun : Records::Reason::PackageLeft});
        return false;
      }
    }
    watched.mark->Begin();
    return true;
  }

  const WatchedUninstall watched;
  // Signaled when `stopping` is set, so that a log-off does not wait for the next poll. Null if
  // Windows could not create it.
  const Platform::UniqueHandle stopEvent = Platform::MakeUnnamedEvent();
  std::atomic<bool> stopping{false};
  std::mutex handlerMutex;  // guards `handler`; no other lock is taken while it is held
  std::condition_variable handlerKnown;
  Handler handler = Handler::Awaited;
};

IPCEvent::IPCEvent(EventCommandPtr packageCommand)
    : command(std::move(packageCommand)), completion(std::make_shared<CompletionEvent>()) {}

std::int64_t IPCEvent::EventComplete(CompletionHandler handler) {
  return completion->Add(std::move(handler));
}

PackageUninstallingPCEvent::PackageUninstallingPCEvent(const std::wstring& packageFamilyName,
                                                       PackageCatalogEvent event,
                                                       EventCommandPtr packageCommand,
                                                       const std::shared_ptr<FiringMark>& mark,
                                                       const std::wstring& subscription)
    : IPCEvent(std::move(packageCommand)),
      watch(std::make_shared<UninstallWatch>(WatchedUninstall{
          packageFamilyName, event, command, completion,
          mark == nullptr ? std::make_shared<FiringMark>() : mark, subscription})) {
  if (!Platform::CurrentMachine().apiSets->IsPresent(Platform::kSessionApiSet)) {
    Log().LogError(kNoSessionApi);
    return;
  }
  const std::lock_guard guard(rLock);
  if (Platform::CurrentMachine().packages->FindForAllUsers(packageFamilyName).empty()) {
    throw Platform::WindowsRuntimeError(kPackageNotInstalled, kNotInstalled);
  }
  catalog = OpenConsoleUserCatalog();
}

PackageUninstallingPCEvent::~PackageUninstallingPCEvent() {
  watch->Stop();
  for (auto& watcher : watchers) watcher.Join();
}

void PackageUninstallingPCEvent::Register() {
  const std::lock_guard guard(register_mux);
  if (!watchers.empty()) return;
  watchers.emplace_back(
      [shared = watch, opened = catalog] { UninstallWatch::Run(shared, opened); });
}

std::function<bool()> PackageUninstallingPCEvent::HandlerWait() const {
  return [shared = watch] { return shared->AwaitHandler(); };
}

bool PackageUninstallingPCEvent::IsProcessRunningAsSystem() const {
  const auto answer = Platform::CurrentMachine().sessions->ProcessIsLocalSystem();
  // A wrong guess would permanently watch another user's packages.
  if (!answer) throw Platform::WindowsRuntimeError(kConsoleUserUnavailable, kOwnAccountUnknown);
  return *answer;
}

std::shared_ptr<Platform::PackageCatalog> PackageUninstallingPCEvent::OpenConsoleUserCatalog() {
  Platform::Packages& packages = *Platform::CurrentMachine().packages;
  if (!IsProcessRunningAsSystem()) return packages.OpenCatalogForCurrentUser();
  const Platform::UniqueHandle token = Platform::ConsoleUserToken(&ReportRefusedStep);
  auto sid = Platform::CurrentMachine().sessions->SidOf(token.get());
  user = sid ? std::optional(*std::move(sid)) : std::nullopt;
  return Platform::AsUser(token.get(), &ReportRefusedStep,
                          [&] { return packages.OpenCatalogForCurrentUser(); });
}

SubscribeForAppPackageEventRequest::SubscribeForAppPackageEventRequest(
    const std::wstring& request, const std::shared_ptr<FiringMark>& mark) {
  const auto document = Json::JsonObject::Parse(request);
  catalogEvent = static_cast<PackageCatalogEvent>(Code(document, kPackageForm.event));
  catalogAction = static_cast<EventAction>(Code(document, kPackageForm.action));
  packageFamilyName = document.GetNamedString(kPackageForm.family);
  const auto parameters = document.GetNamedObject(kPackageForm.parameters);

  if (MeaningOf(kPackageCodes, static_cast<std::uint32_t>(catalogEvent)) == nullptr) {
    throw Platform::WindowsRuntimeError(kUnknownCatalogEvent, kUnknownEvent);
  }
  packageEvent = std::make_unique<PackageUninstallingPCEvent>(
      packageFamilyName, catalogEvent, CreateEventCommand(catalogAction, parameters), mark,
      Records::SubscriptionHash(request));
}

void SubscribeForAppPackageEventRequest::RegisterPackageEvent(const CompletionHandler& completed) {
  if (completed) packageEvent->EventComplete(completed);
  packageEvent->Register();
}

std::shared_ptr<PackageEventCommand> SubscribeForAppPackageEventRequest::ParseEventCommand(
    const std::wstring& request) {
  try {
    const auto document = Json::JsonObject::Parse(request);
    const auto action = static_cast<EventAction>(Code(document, kPackageForm.action));
    return std::dynamic_pointer_cast<PackageEventCommand>(
        CreateEventCommand(action, document.GetNamedObject(kPackageForm.parameters)));
  } catch (const Platform::WindowsRuntimeError&) {
    return nullptr;
  }
}

}  // namespace Vx::Tessel::Server::Services::Orvane
