#include "storage/system_mutex.h"

#include <atomic>

#include "host/logging.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"

namespace Vx::Tessel::Server::Storage {

namespace {

constexpr char kCreateFailed[] = "SystemMutex::SystemMutex - failed to create mutex";
constexpr char kLockFailed[] = "SystemMutex::lock - failed to gain ownership of mutex";
constexpr char kUnlockFailed[] =
    "SystemMutex::unlock - something went wrong trying to free the mutex";

constexpr wchar_t kNameTaken[] =
    L"SystemMutex - another program has given the name %s to an object that is not a mutex. "
    L"The shared store cannot be used until that object is gone.";

constexpr wchar_t kNameDenied[] =
    L"SystemMutex - Windows denies access to the mutex %s, which another program has made. "
    L"The shared store cannot be used until that mutex is gone.";

constexpr Platform::ErrorCode kAccessDenied = 5;

constexpr std::uint32_t kCreateCode = 0;
constexpr std::uint32_t kLockCode = 2;
constexpr std::uint32_t kUnlockCode = 3;

constexpr wchar_t kAbandoned[] =
    L"SystemMutex::lock - the last holder of the mutex ended without releasing it";

constinit Platform::TakenName nameTaken;
constinit std::atomic<bool> denialReported{false};

// Returns whether `error` is an access denial that has not been logged since the last success.
// Logging each one would flood the log.
bool IsNewDenial(Platform::ErrorCode error) {
  if (error == 0) denialReported = false;
  return error == kAccessDenied && !denialReported.exchange(true);
}

const Logging::TraceLogger& Log() {
  return *Logging::LogManager::SetProvider(Logging::kComponentProvider);
}

Platform::KernelObjects& Kernel() {
  return *Platform::CurrentMachine().kernelObjects;
}

}  // namespace

SystemMutex::SystemMutex(std::wstring mutexName) : name(std::move(mutexName)) {
  Platform::Result<Platform::UniqueHandle> made = Kernel().MakeMutex(name);
  const Platform::ErrorCode error = made ? 0 : made.Error();
  if (nameTaken.IsNews(error)) Log().LogWarning(kNameTaken, name.c_str());
  if (IsNewDenial(error)) Log().LogWarning(kNameDenied, name.c_str());
  if (!made) throw system_mutex_exception(kCreateFailed, kCreateCode);
  handle = *std::move(made);
}

SystemMutex::~SystemMutex() {
  if (handle != nullptr && !released) Kernel().UnlockMutex(handle.get());
}

void SystemMutex::lock() {
  using Locked = Platform::KernelObjects::Locked;
  if (handle == nullptr) throw system_mutex_exception(kLockFailed, kLockCode);
  const Platform::Result<Locked> locked = Kernel().LockMutex(handle.get());
  if (!locked) throw system_mutex_exception(kLockFailed, kLockCode);
  released = false;
  if (*locked == Locked::Abandoned) Log().LogWarning(kAbandoned);
}

void SystemMutex::unlock() {
  released = true;
  if (handle == nullptr || Kernel().UnlockMutex(handle.get()) != 0) {
    throw system_mutex_exception(kUnlockFailed, kUnlockCode);
  }
}

}  // namespace Vx::Tessel::Server::Storage
