#include "events/package_event_manager.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include "events/firing_marks.h"
#include "events/package_completion.h"
#include "events/subscription_delivery.h"
#include "events/subscription_forms.h"
#include "events/uninstall_watch.h"
#include "host/logging.h"
#include "json/json_object.h"
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

// The text of a request in the stored list, instead of the client's spelling.
std::wstring StoredText(const std::wstring& request) {
  return Json::JsonObject::Parse(request).Stringify();
}

// Whether a list in the store holds a request. `list` is null when there is none. Throws for a list
// that cannot be read.
bool Holds(const Storage::BsonElement* list, const std::wstring& stored) {
  if (list == nullptr) return false;
  const auto requests = Storage::RequestsOf(list->AsWideText().value());
  return std::find(requests.begin(), requests.end(), stored) != requests.end();
}

// Also true when the store cannot be read: a subscription that is watched for nothing does less
// harm than one that a client was acknowledged for and that never runs.
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
  }
}

// Stores a request and returns whether the store took it. One whose command has run, but which
// could not be completed, makes room for it.
bool Persist(const std::wstring& request) {
  try {
    return PackageCompletion::StoredRequests().PersistRequest(request);
  } catch (const Platform::WindowsRuntimeError& error) {
    if (error.code() != kAlreadySubscribed || !PackageCompletion::CompleteEqual(request)) throw;
    return PackageCompletion::StoredRequests().PersistRequest(request);
  }
}

// Removes a request whose registration failed. A failure here must not hide the first one.
void TakeBack(const std::wstring& stored, const MarkPtr& mark) {
  try {
    PackageCompletion::StoredRequests().RemoveRequest(stored);
  } catch (const Platform::WindowsRuntimeError&) {  // NOLINT(bugprone-empty-catch)
    // The stored list cannot be read, so it never took the request.
  }
  FiringMarks::Forget(stored, mark);
}

void MakeLive(const std::wstring& request, const std::wstring& stored, Owner owner,
              const MarkPtr& mark, const Platform::SharedHandle& stop) {
  PackageCatalogEventManager::register_event(
      request,
      [stored, mark, stop](const std::wstring&) {
        PackageCompletion::Complete(stored, mark, stop);
      },
      nullptr, owner, mark);
}

// One replay of the stored requests.
class Replay {
 public:
  Replay(Owner of, Platform::SharedHandle ends)
      : owner(of), stop(std::move(ends)), forgotten(FiringMarks::Forgotten()) {}

  void Register(const std::wstring& stored) {
    if (RegisterOne(stored)) {
      PackageCompletion::Remove(stored, mark);
    } else {
      PackageCatalogEventManager::EndReplaced(owner, mark);
    }
  }

  // For the request whose registration failed last. Does not wait for a notification that runs the
  // command already: a logon must not hang with a command.
  void RunLate(const std::wstring& stored, const Platform::WindowsRuntimeError& error) const {
    if (error.code() != kPackageNotInstalled) return;
    const bool ran = mark->RunOnceUnlessRunning([&] {
      Logging::LogManager::GetLogger()->LogInfo(kRunningLate);
      PackageCatalogEventManager::execute_command(stored);
    });
    if (ran) PackageCompletion::CompleteNow(stored, mark);
  }

 private:
  // Takes the lock for the step in which a request, its mark and its registration belong together.
  // Returns whether the command has run already.
  bool RegisterOne(const std::wstring& stored) {
    const std::lock_guard guard(PackageCompletion::listChange);
    mark = FiringMarks::Of(stored);
    if (mark->HasRun()) return true;
    // Completed since the list was read: the mark is a new one, and its command must not run.
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

std::mutex PackageCatalogEventManager::register_event_mux;
std::uint64_t PackageCatalogEventManager::lastNumber = 0;

std::vector<PackageCatalogEventManager::LiveRequest>& PackageCatalogEventManager::requests() {
  static auto& list = *new std::vector<LiveRequest>();
  return list;
}

void PackageCatalogEventManager::register_event(const std::wstring& request,
                                                const CompletionHandler& completed,
                                                const void* /*argument*/, Owner owner,
                                                const std::shared_ptr<FiringMark>& mark) {
  // Without the lock, which a service that ends takes: the package queries may take seconds.
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
  const auto watch = last->request->PackageEvent()->Watch();
  // Without the lock, which a service that ends takes. Until both watch, an uninstall could be
  // missed.
  guard.unlock();
  if (!user || !watch->AwaitHandler()) return;
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
    // It has no command either.
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

bool RegisterAppPackageEvent(const std::wstring& request, Owner owner,
                             const Platform::SharedHandle& stop) {
  const std::lock_guard guard(PackageCompletion::listChange);
  const bool isStored = Persist(request);
  std::wstring stored;
  MarkPtr mark;
  try {
    stored = StoredText(request);
    mark = FiringMarks::Renew(stored);
    MakeLive(request, stored, owner, mark, stop);
    return isStored;
  } catch (const Platform::WindowsRuntimeError&) {
    // A store that did not take it may hold the equal request of another client.
    if (isStored && mark != nullptr) TakeBack(stored, mark);
    throw;
  } catch (const std::exception& error) {
    if (!isStored) throw;
    throw NotWatched(error.what());
  }
}

void RegisterExistingPackageCatalogManagerRequests(Owner owner,
                                                   const Platform::SharedHandle& stop) {
  Replay replay(owner, stop);
  PackageCompletion::StoredRequests().RegisterExistingRequests(
      [&](const std::wstring& request) {
        if (stop != nullptr && PackageCompletion::HasEnded(stop)) return;
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
