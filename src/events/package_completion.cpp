#include "events/package_completion.h"

#include <chrono>
#include <exception>
#include <stdexcept>

#include "events/subscription_delivery.h"
#include "events/subscription_forms.h"
#include "host/logging.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "storage/request_list.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using MarkPtr = std::shared_ptr<FiringMark>;

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

// The caller holds listChange.
bool RemoveHeld(const std::wstring& stored, const MarkPtr& mark) {
  // Another registration has completed the request. A client may have stored its text again since.
  if (!FiringMarks::IsCurrent(stored, mark)) return true;
  if (!PackageCompletion::StoredRequests().CompleteRequest(stored)) return false;
  FiringMarks::Forget(stored, mark);
  RecordCompletion(stored);
  return true;
}

void ReportLeft(const std::wstring& stored) {
  Logging::LogManager::GetLogger()->LogWarning(kNotCompleted, stored.c_str());
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

}  // namespace

std::mutex PackageCompletion::listChange;

RequestManager PackageCompletion::StoredRequests() {
  return RequestManager(kServiceDocument, kPackageForm.list);
}

bool PackageCompletion::HasEnded(const Platform::SharedHandle& stop) {
  const auto now = Platform::CurrentMachine().clock->Wait(stop.get(), std::chrono::milliseconds(0));
  return now.outcome != Platform::WaitOutcome::TimedOut;
}

bool PackageCompletion::Remove(const std::wstring& stored, const MarkPtr& mark) noexcept {
  try {
    const std::lock_guard guard(listChange);
    return RemoveHeld(stored, mark);
  } catch (const std::exception& error) {
    Logging::LogManager::GetLogger()->LogError(kFailed, error.what());
  } catch (...) {
    Logging::LogManager::GetLogger()->LogError(kFailed, kUnknown);
  }
  return false;
}

void PackageCompletion::CompleteNow(const std::wstring& stored, const MarkPtr& mark) noexcept {
  if (!Remove(stored, mark)) ReportLeft(stored);
}

void PackageCompletion::Complete(const std::wstring& stored, const MarkPtr& mark,
                                 const Platform::SharedHandle& stop) noexcept {
  for (int tries = 1; tries < kTries; ++tries) {
    if (Remove(stored, mark)) return;
    if (!Pause(stop)) return ReportLeft(stored);
  }
  CompleteNow(stored, mark);
}

bool PackageCompletion::CompleteEqual(const std::wstring& request) {
  for (const auto& [stored, mark] : FiringMarks::OfThoseThatHaveRun()) {
    if (Storage::ListWith(L"[" + stored + L"]", request)) continue;
    if (!RemoveHeld(stored, mark)) throw std::runtime_error(kCannotReplace);
    return true;
  }
  return false;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
