#include "events/package_event_manager.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <utility>

#include "events/firing_marks.h"
#include "events/subscription_forms.h"
#include "host/logging.h"
#include "json/json_object.h"
#include "platform/windows_runtime_error.h"
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

// Held while a request, its mark and its registration come or go together, so that what one thread
// takes back or finds gone is never the request that another client was acknowledged for. Taken
// before register_event_mux, the store's mutex and that of the marks.
std::mutex listChange;

RequestManager StoredPackageRequests() {
  return RequestManager(kServiceDocument, kPackageForm.list);
}

// The text of a request in the stored list, instead of the client's spelling.
std::wstring StoredText(const std::wstring& request) {
  return Json::JsonObject::Parse(request).Stringify();
}

bool IsStored(const std::wstring& stored) {
  const auto requests = Storage::RequestsOf(StoredPackageRequests().StoredRequests());
  return std::find(requests.begin(), requests.end(), stored) != requests.end();
}

// Removes a request whose registration failed. A failure here must not hide the first one.
void TakeBack(const std::wstring& stored, const MarkPtr& mark) {
  try {
    StoredPackageRequests().RemoveRequest(stored);
  } catch (const Platform::WindowsRuntimeError&) {  // NOLINT(bugprone-empty-catch)
    // The stored list cannot be read, so it never took the request.
  }
  FiringMarks::Forget(stored, mark);
}

void Complete(const std::wstring& stored, const MarkPtr& mark) {
  if (StoredPackageRequests().CompleteRequest(stored)) FiringMarks::Forget(stored, mark);
}

void MakeLive(const std::wstring& request, const std::wstring& stored, Owner owner,
              const MarkPtr& mark) {
  PackageCatalogEventManager::register_event(
      request, [stored, mark](const std::wstring&) { Complete(stored, mark); }, nullptr, owner,
      mark);
}

// One replay of the stored requests.
class Replay {
 public:
  explicit Replay(Owner service) : owner(service), forgotten(FiringMarks::Forgotten()) {}

  void Register(const std::wstring& stored) {
    const std::lock_guard guard(listChange);
    mark = FiringMarks::Of(stored);
    // Completed since the list was read: the mark may be a new one that has not run.
    if (FiringMarks::Forgotten() != forgotten && !IsStored(stored)) {
      FiringMarks::Forget(stored, mark);
    } else if (mark->HasRun()) {
      Complete(stored, mark);
    } else {
      MakeLive(stored, stored, owner, mark);
    }
  }

  // For the request whose registration failed last.
  void RunLate(const std::wstring& stored, const Platform::WindowsRuntimeError& error) const {
    if (error.code() != kPackageNotInstalled) return;
    const bool ran = mark->RunOnce([&] {
      Logging::LogManager::GetLogger()->LogInfo(kRunningLate);
      PackageCatalogEventManager::execute_command(stored);
    });
    if (ran) Complete(stored, mark);
  }

 private:
  const Owner owner;
  const std::uint64_t forgotten;
  MarkPtr mark;
};

}  // namespace

std::mutex PackageCatalogEventManager::register_event_mux;

std::vector<PackageCatalogEventManager::LiveRequest>& PackageCatalogEventManager::requests() {
  static auto& list = *new std::vector<LiveRequest>();
  return list;
}

void PackageCatalogEventManager::register_event(const std::wstring& request,
                                                const CompletionHandler& completed,
                                                const void* /*argument*/, Owner owner,
                                                const std::shared_ptr<FiringMark>& mark) {
  const std::lock_guard guard(register_event_mux);
  requests().push_back(
      {owner, std::make_unique<SubscribeForAppPackageEventRequest>(request, mark)});
  requests().back().request->RegisterPackageEvent(completed);
}

void PackageCatalogEventManager::execute_command(const std::wstring& request) {
  const auto command = SubscribeForAppPackageEventRequest::ParseEventCommand(request);
  if (command != nullptr && command->RunIfUninstalledWhileNotRunning()) command->Execute();
}

void PackageCatalogEventManager::clear_events() {
  const std::lock_guard guard(register_event_mux);
  requests().clear();
}

void PackageCatalogEventManager::clear_events(Owner owner) {
  const std::lock_guard guard(register_event_mux);
  std::erase_if(requests(), [owner](const LiveRequest& live) { return live.owner == owner; });
}

void RegisterAppPackageEvent(const std::wstring& request, Owner owner) {
  const std::lock_guard guard(listChange);
  StoredPackageRequests().PersistRequest(request);
  const std::wstring stored = StoredText(request);
  const MarkPtr mark = FiringMarks::Renew(stored);
  try {
    MakeLive(request, stored, owner, mark);
  } catch (const Platform::WindowsRuntimeError&) {
    TakeBack(stored, mark);
    throw;
  }
}

void RegisterExistingPackageCatalogManagerRequests(Owner owner) {
  Replay replay(owner);
  StoredPackageRequests().RegisterExistingRequests(
      [&](const std::wstring& request) {
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
