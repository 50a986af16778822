#include "events/package_completion.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <utility>
#include <vector>

#include "events/subscription_forms.h"
#include "host/logging.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/thread.h"
#include "storage/request_list.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using MarkPtr = std::shared_ptr<FiringMark>;

constexpr wchar_t kNotCompleted[] =
    L"PackageCatalogEventManager - the command has run, but its request stays stored and runs "
    L"again after a restart: %s";
constexpr wchar_t kRetryFailed[] = L"PackageCatalogEventManager - completing failed: %S";
constexpr char kUnknown[] = "an exception of an unknown kind";
constexpr char kCannotReplace[] =
    "the same subscription has run, but it could not be removed from the stored list";

constexpr std::chrono::seconds kFirstPause{1};  // doubled after each try, anew for a later request
constexpr int kTries = 9;                       // within nine minutes

// Guarded by listChange.
struct Retries {
  bool working = false;
  bool reported = false;  // that one threw
  int left = 0;
  std::vector<Platform::SharedHandle> services;  // the events that end them
};

// Never destroyed, because the worker may outlive every service.
Retries& All() {
  static auto& retries = *new Retries();
  return retries;
}

// Returns the event of a service that lives. Null if there is none, or none whose event could be
// made.
Platform::SharedHandle LivingService() {
  std::erase_if(All().services, &PackageCompletion::HasEnded);
  return All().services.empty() ? nullptr : All().services.front();
}

bool Remove(const std::wstring& stored, const MarkPtr& mark) {
  // Another registration has completed it, and the text may be subscribed again by now.
  if (!FiringMarks::IsCurrent(stored, mark)) return true;
  if (!PackageCompletion::StoredRequests().CompleteRequest(stored)) return false;
  FiringMarks::Forget(stored, mark);
  return true;
}

// Returns whether none is left. Ends at the first that fails: the store would keep each of the
// others waiting too, and with them all who wait for listChange.
bool RemoveAll() {
  return std::ranges::all_of(FiringMarks::OfThoseThatHaveRun(),
                             [](const auto& entry) { return Remove(entry.first, entry.second); });
}

bool ReportLeft() {
  for (const auto& [stored, mark] : FiringMarks::OfThoseThatHaveRun()) {
    Logging::LogManager::GetLogger()->LogWarning(kNotCompleted, stored.c_str());
  }
  return true;
}

// The boundary of a try. Returns false also when it throws, which is logged once per worker.
template <typename Try>
bool Contained(const Try& attempt) noexcept {
  const auto report = [](const char* what) {
    if (std::exchange(All().reported, true)) return;
    Logging::LogManager::GetLogger()->LogError(kRetryFailed, what);
  };
  try {
    return attempt();
  } catch (const std::exception& error) {
    report(error.what());
  } catch (...) {
    report(kUnknown);
  }
  return false;
}

}  // namespace

std::mutex PackageCompletion::listChange;

RequestManager PackageCompletion::StoredRequests() {
  return RequestManager(kServiceDocument, kPackageForm.list);
}

bool PackageCompletion::HasEnded(const Platform::SharedHandle& stop) {
  const auto now = Platform::CurrentMachine().clock->Wait(stop.get(), std::chrono::milliseconds(0));
  return now.outcome != Platform::WaitOutcome::TimedOut;
}

void PackageCompletion::AddService(const Platform::SharedHandle& stop) {
  LivingService();  // forgets those that ended
  auto& services = All().services;
  if (stop == nullptr || HasEnded(stop) || std::ranges::find(services, stop) != services.end()) {
    return;
  }
  services.push_back(stop);
}

void PackageCompletion::Complete(const std::wstring& stored, const MarkPtr& mark) {
  const std::lock_guard guard(listChange);
  Retries& retries = All();
  if (!retries.working) retries.reported = false;
  if (Contained([&] { return Remove(stored, mark); })) return;
  if (LivingService() == nullptr) {
    Contained(&ReportLeft);
    return;
  }
  retries.left = kTries;
  if (retries.working) return;
  Platform::StartDetached(&Retry);
  retries.working = true;
}

void PackageCompletion::Retry() noexcept {
  std::unique_lock guard(listChange);
  Retries& retries = All();
  while (const Platform::SharedHandle service = LivingService()) {
    const auto pause = kFirstPause * (1 << (kTries - retries.left));
    guard.unlock();
    const auto wait = Platform::CurrentMachine().clock->Wait(service.get(), pause);
    guard.lock();
    if (wait.outcome != Platform::WaitOutcome::TimedOut) {
      std::erase(retries.services, service);  // another one takes over
      continue;
    }
    const bool gone = Contained(&RemoveAll);
    if (gone || --retries.left == 0) {
      if (!gone) Contained(&ReportLeft);
      break;
    }
  }
  retries.working = false;
}

bool PackageCompletion::CompleteEqual(const std::wstring& request) {
  for (const auto& [stored, mark] : FiringMarks::OfThoseThatHaveRun()) {
    if (Storage::ListWith(L"[" + stored + L"]", request)) continue;
    if (!Remove(stored, mark)) throw std::runtime_error(kCannotReplace);
    return true;
  }
  return false;
}

void PackageCompletion::CompleteAll() noexcept {
  const std::lock_guard guard(listChange);
  const auto complete = [] {
    const bool goesOn = LivingService() != nullptr && All().working;
    return Contained(&RemoveAll) || goesOn || ReportLeft();
  };
  Contained(complete);
}

void PackageCompletion::StartCompletingAll() {
  if (!FiringMarks::OfThoseThatHaveRun().empty()) Platform::StartDetached(&CompleteAll);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
