#include "events/package_event_manager.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <optional>
#include <utility>

#include "events/firing_marks.h"
#include "events/subscription_delivery.h"
#include "events/subscription_forms.h"
#include "host/logging.h"
#include "json/json_object.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/windows_runtime_error.h"
#include "records/record.h"
#include "storage/cap_data_store.h"
#include "storage/request_list.h"
#include "storage/request_manager.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Owner = PackageCatalogEventManager::Owner;
using MarkPtr = std::shared_ptr<FiringMark>;

constexpr wchar_t kRunningLate[] =
    L"RegisterExistingPackageCatalogManagerRequests - App uninstalled while service was not "
    L"running. Executing command now";

constexpr wchar_t kNotWatched[] =
    L"RegisterExistingPackageCatalogManagerRequests - a stored request is not watched, because of "
    L"\"%S\": %s";

constexpr wchar_t kNotTakenBack[] =
    L"OrvaneService - a refused package subscription could not be taken back and may run at the "
    L"next logon: %s";

constexpr wchar_t kNotCompleted[] =
    L"PackageCatalogEventManager - the command has run, but its request stays stored and runs "
    L"again after a restart: %s";
constexpr wchar_t kFailed[] = L"PackageCatalogEventManager - completing failed: %S";
constexpr char kUnknown[] = "an exception of an unknown kind";
constexpr char kCannotReplace[] =
    "the same subscription has run, but it could not be removed from the stored list";

constexpr std::chrono::seconds kPause{1};
constexpr int kTries = 3;

void RecordCompletion(const std::wstring& stored) noexcept {
  Records::Record record{.kind = Records::Kind::Completion,
                         .outcome = {Records::Decision::Removed, Records::Reason::HasRun}};
  try {
    NameSubscription(record, stored, kPackageForm);
  } catch (...) {  // NOLINT(bugprone-empty-catch): the record has fewer details
  }
  Records::Write(record);
}

RequestManager StoredRequests() {
  return RequestManager(kServiceDocument, kPackageForm.list);
}

// The functions below complete (remove) requests whose command has run. If that fails, the request
// stays stored until a later attempt succeeds. Until then, its mark prevents this process from
// running the command again.

// Returns whether the request is no longer stored. The caller holds listChange.
bool RemoveHeld(const std::wstring& stored, const MarkPtr& mark) {
  // Another registration has completed the request. A client may have stored its text again since.
  if (!FiringMarks::IsCurrent(stored, mark)) return true;
  if (!StoredRequests().CompleteRequest(stored)) return false;
  FiringMarks::Forget(stored, mark);
  RecordCompletion(stored);
  return true;
}

// Like RemoveHeld, but acquires listChange, and logs exceptions.
bool Remove(const std::wstring& stored, const MarkPtr& mark) noexcept {
  try {
    const std::lock_guard guard(PackageCatalogEventManager::listChange);
    return RemoveHeld(stored, mark);
  } catch (const std::exception& error) {
    Logging::LogManager::GetLogger()->LogError(kFailed, error.what());
  } catch (...) {
    Logging::LogManager::GetLogger()->LogError(kFailed, kUnknown);
  }
  return false;
}

// Waits for kPause. Returns false if the service ends first.
bool Pause(const Platform::SharedHandle& stop) noexcept {
  Platform::Clock& clock = *Platform::CurrentMachine().clock;
  if (stop != nullptr) {
    return clock.Wait(stop.get(), kPause).outcome == Platform::WaitOutcome::TimedOut;
  }
  clock.Sleep(kPause);
  return true;
}

// Tries to remove a request up to `tries` times, one second apart, and holds no lock in between.
// Gives up once `stop` (may be null) is signaled. Logs a request that stays stored. The next
// replay, notification or equal subscription then completes it. Do not call with several tries on a
// thread that a host waits for.
void Complete(const std::wstring& stored, const MarkPtr& mark, int tries,
              const Platform::SharedHandle& stop) noexcept {
  while (!Remove(stored, mark)) {
    if (--tries > 0 && Pause(stop)) continue;
    Logging::LogManager::GetLogger()->LogWarning(kNotCompleted, stored.c_str());
    return;
  }
}

// Completes the stored request that PersistRequest treats as equal to `request`, if it has run.
// Returns whether it did. The caller holds listChange. Throws std::runtime_error on failure.
bool CompleteEqual(const std::wstring& request) {
  for (const auto& [stored, mark] : FiringMarks::OfThoseThatHaveRun()) {
    if (Storage::ListWith(L"[" + stored + L"]", request)) continue;
    if (!RemoveHeld(stored, mark)) throw std::runtime_error(kCannotReplace);
    return true;
  }
  return false;
}

// Returns a request as the list stores it, not as the client wrote it.
std::wstring StoredText(const std::wstring& request) {
  return Json::JsonObject::Parse(request).Stringify();
}

// Returns whether a stored list, which may be null, contains a request. Throws if it is unreadable.
bool Holds(const Storage::BsonElement* list, const std::wstring& stored) {
  if (list == nullptr) return false;
  const auto requests = Storage::RequestsOf(list->View().AsWideText().value());
  return std::find(requests.begin(), requests.end(), stored) != requests.end();
}

// Returns true even if the store cannot be read, because watching in vain does less harm than never
// running a command for which a client has received success.
bool MayBeStored(const std::wstring& stored) noexcept {
  try {
    bool held = true;
    const auto look = [&](const Storage::BsonElement* list) -> std::optional<Storage::BsonElement> {
      held = Holds(list, stored);
      return std::nullopt;
    };
    Storage::CapDataStore store;
    return !store.updateMember(kServiceDocument, kPackageForm.list, look) || held;
  } catch (const std::exception&) {
    return true;
  } catch (const Platform::WindowsRuntimeError&) {  // the list is not a JSON array
    return true;
  }
}

// Stores a request and returns whether the store accepted it. First removes an equal request that
// has run but could not be completed.
bool Persist(const std::wstring& request) {
  try {
    return StoredRequests().PersistRequest(request);
  } catch (const Platform::WindowsRuntimeError& error) {
    if (error.code() != kAlreadySubscribed || !CompleteEqual(request)) throw;
    return StoredRequests().PersistRequest(request);
  }
}

// Removes a request whose registration failed. A failure here must not hide the original error.
void TakeBack(const std::wstring& stored, const MarkPtr& mark) {
  using Removal = RequestManager::Removal;
  try {
    if (StoredRequests().RemoveRequest(stored) == Removal::Failed) {
      Logging::LogManager::GetLogger()->LogWarning(kNotTakenBack, stored.c_str());
    }
  } catch (const Platform::WindowsRuntimeError&) {  // NOLINT(bugprone-empty-catch)
    // The stored list cannot be read, so the request was never added.
  }
  FiringMarks::Forget(stored, mark);
}

void MakeLive(const std::wstring& request, const std::wstring& stored, Owner owner,
              const MarkPtr& mark, const Platform::SharedHandle& stop) {
  PackageCatalogEventManager::register_event(
      request, [stored, mark, stop](const std::wstring&) { Complete(stored, mark, kTries, stop); },
      nullptr, owner, mark);
}

// One replay of the stored requests.
class Replay {
 public:
  Replay(Owner of, Platform::SharedHandle ends)
      : owner(of), stop(std::move(ends)), forgotten(FiringMarks::Forgotten()) {}

  void Register(const std::wstring& stored) {
    if (RegisterOne(stored)) {
      Remove(stored, mark);
    } else {
      PackageCatalogEventManager::EndReplaced(owner, mark);
    }
  }

  // Runs the command now if the registration failed because the package is gone. Does not wait for
  // a notification that is already running the command, because a logon must not hang on a command.
  void RunLate(const std::wstring& stored, const Platform::WindowsRuntimeError& error) const {
    if (error.code() != kPackageNotInstalled) return;
    const bool ran = mark->RunOnceUnlessRunning([&] {
      Logging::LogManager::GetLogger()->LogInfo(kRunningLate);
      PackageCatalogEventManager::execute_command(stored);
    });
    if (ran) Complete(stored, mark, 1, nullptr);
  }

 private:
  // Registers a request unless its command has already run, and returns whether it has. Holds the
  // lock because the request, its mark and its registration must match.
  bool RegisterOne(const std::wstring& stored) {
    const std::lock_guard guard(PackageCatalogEventManager::listChange);
    mark = FiringMarks::Of(stored);
    if (mark->HasRun()) return true;
    // The request was completed after the list was read. Its new mark does not record that.
    if (FiringMarks::Forgotten() != forgotten && !MayBeStored(stored)) {
      FiringMarks::Forget(stored, mark);
    } else {
      MakeLive(stored, stored, owner, mark, stop);
    }
    return false;
  }

  const Owner owner;
  const Platform::SharedHandle stop;
  const std::uint64_t forgotten;
  MarkPtr mark;
};

}  // namespace

std::vector<PackageCatalogEventManager::LiveRequest>& PackageCatalogEventManager::requests() {
  static auto& list = *new std::vector<LiveRequest>();
  return list;
}

void PackageCatalogEventManager::register_event(const std::wstring& request,
                                                const CompletionHandler& completed,
                                                const void* /*argument*/, Owner owner,
                                                const std::shared_ptr<FiringMark>& mark) {
  // Opened without the lock, which a stopping service needs: package queries may take seconds.
  LiveRequest live{owner, mark,
                   std::make_unique<SubscribeForAppPackageEventRequest>(request, mark)};
  const std::lock_guard guard(register_event_mux);
  live.request->RegisterPackageEvent(completed);
  live.number = ++lastNumber;
  requests().push_back(std::move(live));
}

void PackageCatalogEventManager::EndReplaced(Owner owner, const std::shared_ptr<FiringMark>& mark) {
  const auto same = [&](const LiveRequest& live) {
    return live.owner == owner && live.mark == mark;
  };
  std::unique_lock guard(register_event_mux);
  const auto last = std::find_if(requests().rbegin(), requests().rend(), same);
  if (last == requests().rend()) return;
  const std::uint64_t number = last->number;
  const auto user = last->request->PackageEvent()->User();
  const auto isWatching = last->request->PackageEvent()->HandlerWait();
  // Waits without the lock, which a stopping service needs. Keeps the old registration until the
  // new one is watching, so that no uninstall is missed.
  guard.unlock();
  if (!user || !isWatching()) return;
  guard.lock();
  std::erase_if(requests(), [&](const LiveRequest& live) {
    return same(live) && live.number < number && live.request->PackageEvent()->User() == user;
  });
}

void PackageCatalogEventManager::execute_command(const std::wstring& request) {
  Records::Record record{.kind = Records::Kind::Uninstall};
  try {
    NameSubscription(record, request, kPackageForm);
  } catch (const Platform::WindowsRuntimeError&) {  // NOLINT(bugprone-empty-catch)
    // No command can be created from an unreadable request either.
  }
  Records::Delivery delivery(std::move(record));
  const auto command = SubscribeForAppPackageEventRequest::ParseEventCommand(request);
  if (command != nullptr && command->RunIfUninstalledWhileNotRunning()) {
    delivery.Ends(command->Execute());
  } else {
    delivery.Ends({Records::Decision::Dropped, Records::Reason::NotLate});
  }
}

void PackageCatalogEventManager::clear_events() {
  const std::lock_guard guard(register_event_mux);
  requests().clear();
}

void PackageCatalogEventManager::clear_events(Owner owner) {
  const std::lock_guard guard(register_event_mux);
  std::erase_if(requests(), [owner](const LiveRequest& live) { return live.owner == owner; });
}

bool HasEnded(const Platform::SharedHandle& stop) {
  const auto now = Platform::CurrentMachine().clock->Wait(stop.get(), std::chrono::milliseconds(0));
  return now.outcome != Platform::WaitOutcome::TimedOut;
}

bool RegisterAppPackageEvent(const std::wstring& request, Owner owner,
                             const Platform::SharedHandle& stop) {
  const std::lock_guard guard(PackageCatalogEventManager::listChange);
  if (!Persist(request)) {
    // A request that was not stored is only checked, so that the client receives its errors.
    static_cast<void>(SubscribeForAppPackageEventRequest(request));
    return false;
  }
  std::wstring stored;
  MarkPtr mark;
  try {
    stored = StoredText(request);
    mark = FiringMarks::Renew(stored);
    MakeLive(request, stored, owner, mark, stop);
    return true;
  } catch (const Platform::WindowsRuntimeError&) {
    if (mark != nullptr) TakeBack(stored, mark);
    throw;
  } catch (const std::exception& error) {
    throw NotWatched(error.what());
  }
}

void RegisterExistingPackageCatalogManagerRequests(Owner owner,
                                                   const Platform::SharedHandle& stop) {
  Replay replay(owner, stop);
  StoredRequests().RegisterExistingRequests(
      [&](const std::wstring& request) {
        if (stop != nullptr && HasEnded(stop)) return;
        try {
          replay.Register(request);
        } catch (const std::exception& error) {
          Logging::LogManager::GetLogger()->LogWarning(kNotWatched, error.what(), request.c_str());
          throw;
        }
      },
      [&](const std::wstring& request, const Platform::WindowsRuntimeError& error) {
        try {
          replay.RunLate(request, error);
        } catch (const std::exception& failure) {
          Logging::LogManager::GetLogger()->LogWarning(kNotWatched, failure.what(),
                                                       request.c_str());
        }
      });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
