#include "events/package_completion.h"

#include <chrono>
#include <exception>
#include <stdexcept>

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

constexpr std::chrono::seconds kFirstPause{1};  // doubled after each try
constexpr int kTries = 9;                       // within nine minutes

// Guarded by listChange.
struct Retries {
  bool working = false;
  int left = 0;
};
constinit Retries retries;

bool Remove(const std::wstring& stored, const MarkPtr& mark) {
  // Another registration has completed it, and the text may be subscribed again by now.
  if (!FiringMarks::IsCurrent(stored, mark)) return true;
  if (!PackageCompletion::StoredRequests().CompleteRequest(stored)) return false;
  FiringMarks::Forget(stored, mark);
  return true;
}

// Returns whether none is left.
bool RemoveAll() {
  bool gone = true;
  for (const auto& [stored, mark] : FiringMarks::OfThoseThatHaveRun()) {
    gone = Remove(stored, mark) && gone;
  }
  return gone;
}

void ReportLeft() {
  for (const auto& [stored, mark] : FiringMarks::OfThoseThatHaveRun()) {
    Logging::LogManager::GetLogger()->LogWarning(kNotCompleted, stored.c_str());
  }
}

// Returns false when the service ends first, also where its event could not be made.
bool Pause(const Platform::SharedHandle& stop, std::chrono::milliseconds length) {
  return Platform::CurrentMachine().clock->Wait(stop.get(), length).outcome ==
         Platform::WaitOutcome::TimedOut;
}

}  // namespace

std::mutex PackageCompletion::listChange;

RequestManager PackageCompletion::StoredRequests() {
  return RequestManager(kServiceDocument, kPackageForm.list);
}

void PackageCompletion::Complete(const std::wstring& stored, const MarkPtr& mark,
                                 const Platform::SharedHandle& stop) {
  const std::lock_guard guard(listChange);
  if (Remove(stored, mark)) return;
  retries.left = kTries;
  if (retries.working) return;
  Platform::StartDetached([stop] { Retry(stop); });
  retries.working = true;
}

void PackageCompletion::Retry(const Platform::SharedHandle& stop) noexcept {
  try {
    std::chrono::milliseconds pause = kFirstPause;
    for (bool more = true; more; pause *= 2) {
      const bool ended = !Pause(stop, pause);
      const std::lock_guard guard(listChange);
      more = !ended && !RemoveAll() && --retries.left > 0;
      if (more) continue;
      retries.working = false;
      if (!ended) ReportLeft();
    }
    return;
  } catch (const std::exception& error) {
    Logging::LogManager::GetLogger()->LogError(kRetryFailed, error.what());
  } catch (...) {
    Logging::LogManager::GetLogger()->LogError(kRetryFailed, kUnknown);
  }
  const std::lock_guard guard(listChange);
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

void PackageCompletion::CompleteAll() {
  const std::lock_guard guard(listChange);
  if (!RemoveAll()) ReportLeft();
}

}  // namespace Vx::Tessel::Server::Services::Orvane
