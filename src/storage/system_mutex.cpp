#include "storage/system_mutex.h"

#include <utility>

#include "platform/kernel_objects.h"
#include "platform/machine.h"

namespace Vx::Tessel::Server::Storage {

namespace {

constexpr char kCreateFailed[] = "SystemMutex::SystemMutex - failed to create mutex";
constexpr char kLockFailed[] = "SystemMutex::lock - failed to gain ownership of mutex";
constexpr char kUnlockFailed[] =
    "SystemMutex::unlock - something went wrong trying to free the mutex";

constexpr std::uint32_t kCreateCode = 0;
constexpr std::uint32_t kLockCode = 2;
constexpr std::uint32_t kUnlockCode = 3;

Platform::KernelObjects& Kernel() {
  return *Platform::CurrentMachine().kernelObjects;
}

}  // namespace

SystemMutex::SystemMutex(std::wstring mutexName) : name(std::move(mutexName)) {
  Platform::Result<Platform::UniqueHandle> made = Kernel().MakeMutex(name);
  if (!made || *made == nullptr) throw system_mutex_exception(kCreateFailed, kCreateCode);
  handle = *std::move(made);
}

SystemMutex::~SystemMutex() {
  if (handle != nullptr && !released) Kernel().UnlockMutex(handle.get());
}

void SystemMutex::lock() {
  if (handle == nullptr || Kernel().LockMutex(handle.get()) != 0) {
    throw system_mutex_exception(kLockFailed, kLockCode);
  }
  released = false;
}

void SystemMutex::unlock() {
  released = true;
  if (handle == nullptr || Kernel().UnlockMutex(handle.get()) != 0) {
    throw system_mutex_exception(kUnlockFailed, kUnlockCode);
  }
}

}  // namespace Vx::Tessel::Server::Storage
