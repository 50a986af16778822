#include "events/uninstall_watch.h"

#include <exception>

#include "host/logging.h"
#include "platform/clock.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/windows_runtime_error.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using std::chrono::milliseconds;

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

}  // namespace

std::int64_t CompletionEvent::Add(CompletionHandler handler) {
  const std::lock_guard guard(mutex);
  handlers.emplace_back(++lastToken, std::move(handler));
  return lastToken;
}

void CompletionEvent::Raise(const std::wstring& text) const {
  std::unique_lock guard(mutex);
  const auto called = handlers;
  guard.unlock();
  for (const auto& [token, handler] : called) handler(text);
}

UninstallWatch::UninstallWatch(std::wstring packageFamilyName, PackageCatalogEvent catalogEvent,
                               std::shared_ptr<EventCommand> packageCommand,
                               std::shared_ptr<CompletionEvent> completionEvent,
                               std::shared_ptr<FiringMark> firingMark,
                               std::wstring subscriptionHash)
    : familyName(std::move(packageFamilyName)),
      event(catalogEvent),
      command(std::move(packageCommand)),
      completion(std::move(completionEvent)),
      stopEvent(Platform::MakeUnnamedEvent()),
      mark(std::move(firingMark)),
      subscription(std::move(subscriptionHash)) {}

void UninstallWatch::Run(const std::shared_ptr<UninstallWatch>& watch,
                         const std::shared_ptr<Platform::PackageCatalog>& catalog) noexcept {
  bool added = false;
  CatchAndLog([&] {
    if (catalog == nullptr) return;
    const auto token = catalog->AddUninstalling(
        [watch](const Platform::PackageUninstall& uninstall) { watch->OnUninstalling(uninstall); });
    added = true;
    watch->Report(Handler::Added);
    while (!watch->stopping) watch->Pause();
    catalog->RemoveUninstalling(token);
  });
  if (!added) watch->Report(Handler::Refused);
}

void UninstallWatch::Report(Handler outcome) {
  const std::lock_guard guard(handlerMutex);
  handler = outcome;
  handlerKnown.notify_all();
}

bool UninstallWatch::AwaitHandler() {
  std::unique_lock guard(handlerMutex);
  handlerKnown.wait(guard, [this] { return handler != Handler::Awaited; });
  return handler == Handler::Added;
}

void UninstallWatch::Stop() noexcept {
  stopping = true;
  if (stopEvent != nullptr) Platform::CurrentMachine().kernelObjects->Signal(stopEvent.get());
}

void UninstallWatch::OnUninstalling(const Platform::PackageUninstall& uninstall) noexcept {
  std::optional<Records::Delivery> delivery;
  const std::int32_t failure = CatchAndLog([&] { Handle(uninstall, delivery); });
  if (delivery) delivery->Ends(Records::FailedWith(failure));
}

void UninstallWatch::Handle(const Platform::PackageUninstall& uninstall,
                            std::optional<Records::Delivery>& delivery) {
  // A notification that arrived before a log-off is handled even if it acquires the lock only
  // afterwards, because the package is gone and no further notification will arrive.
  if (stopping) return;
  const std::wstring received = uninstall.FamilyName();
  const auto due = [&] { return IsDue(uninstall, received, delivery); };
  // A notification about another package is only logged, without RunOnce, so that a late run at
  // logon does not wait for it.
  if (received != familyName) {
    due();
    return;
  }
  const auto run = [&] {
    const auto guard = TakeTurn(*command, PackageUninstallingPCEvent::commandTurn);
    delivery->Ends(command->Execute());
  };
  // RunOnce marks the command as run before the handlers are called, so that a failing handler does
  // not make it run again. The handlers also complete a request that an earlier run left stored.
  mark->RunOnce(run, due);
  if (mark->AwaitsCompletion()) completion->Raise({});
}

bool UninstallWatch::IsDue(const Platform::PackageUninstall& uninstall,
                           const std::wstring& received,
                           std::optional<Records::Delivery>& delivery) const {
  const std::lock_guard guard(PackageUninstallingPCEvent::uninstall_event_mux);
  if (!mark->MayRun()) return false;
  Log().LogInfo(kInvoked, familyName.c_str(), received.c_str());
  if (received != familyName) return false;
  delivery.emplace(Records::Record{.kind = Records::Kind::Uninstall,
                                   .subscription = subscription,
                                   .target = command->Target(),
                                   .package = familyName,
                                   .number = static_cast<std::uint32_t>(event)});
  if (event == PackageCatalogEvent::Uninstalled) {
    delivery->Waits(kPollStep * kPolls);
    AwaitCompletion(uninstall);
    // If another user still has the package, the event stays armed.
    const bool gone = IsGone(familyName);
    if (!gone || !mark->MayRun()) {
      delivery->Ends({Records::Decision::Dropped,
                      gone ? Records::Reason::HasRun : Records::Reason::PackageLeft});
      return false;
    }
  }
  mark->Begin();
  return true;
}

void UninstallWatch::Pause() {
  Platform::Clock& clock = *Platform::CurrentMachine().clock;
  if (stopEvent != nullptr &&
      clock.Wait(stopEvent.get(), kWatchStep).outcome != Platform::WaitOutcome::Failed) {
    return;
  }
  clock.Sleep(kWatchStep);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
