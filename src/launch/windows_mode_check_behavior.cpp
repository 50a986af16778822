#include "launch/windows_mode_check_behavior.h"

#include <cstdint>
#include <exception>

#include "launch/lockdown_mode.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

namespace {

constexpr wchar_t kNoDocument[] = L"Could not retrive OrvaneService for WindowsModeCheckBehavior";
constexpr wchar_t kCurrentMode[] = L"%S.%S Current Lockdown Policy is %d";
constexpr wchar_t kFirstMode[] = L"%S.%S First Lockdown Policy is %d";
constexpr wchar_t kSwitched[] = L"%S.%S Detected S Mode Switch";
constexpr wchar_t kSwitchedValue[] = L"%S.%S Detected S Mode Switch %d";

constexpr char kNoClass[] = "";
constexpr char kHasBeenInSMode[] = "HasBeenInSMode";
constexpr std::int32_t kUnknownMode = -1;

}  // namespace

WindowsModeCheckBehavior::WindowsModeCheckBehavior()
    : logger(Logging::LogManager::SetProvider(Logging::kComponentProvider)) {
  try {
    document = Storage::CapDataStore().readDocument(kServiceDocument);
  } catch (const std::exception&) {
    logger->LogError(kNoDocument);
  }
}

bool WindowsModeCheckBehavior::IsInSMode() const {
  return QueryLockoutMode(L"") == kLockedMode;
}

bool WindowsModeCheckBehavior::HasBeenInSMode() {
  const bool current = IsInSMode();
  logger->LogInfo(kCurrentMode, kNoClass, kHasBeenInSMode, current ? 1 : 0);
  const auto stored = document.Find(kFirstEnforcementMode);
  const std::int32_t first = stored ? stored->AsInt32().value_or(kUnknownMode) : kUnknownMode;
  logger->LogInfo(kFirstMode, kNoClass, kHasBeenInSMode, first);
  if (first != kLockedMode || current) return false;
  logger->LogInfo(kSwitched, kNoClass, kHasBeenInSMode);
  logger->LogInfo(kSwitchedValue, kNoClass, kHasBeenInSMode, 1);
  return true;
}

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
