#include "platform/thread.h"

#include <cerrno>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include <windows.h>

#include <process.h>

#include "platform/clock.h"
#include "platform/fail_fast.h"
#include "platform/machine.h"
#include "platform/windows/capabilities.h"
#include "platform/worker_machine.h"

namespace Vx::Platform {

namespace {

constexpr char kCannotStart[] = "cannot start a thread";
constexpr char kNotJoinable[] = "the thread is not joinable";

void CountIn(InstalledMachine& installed) {
  installed.workers.fetch_add(1);
  installed.machine.clock->WorkerStarting();
}

// Notifies the clock first, because the scope that owns it may end as soon as the worker is no
// longer counted.
void CountOut(InstalledMachine& installed) noexcept {
  installed.machine.clock->WorkerEnded();
  installed.workers.fetch_sub(1);
}

void TakeBack(InstalledMachine& installed) noexcept {
  installed.machine.clock->WorkerNotStarted();
  installed.workers.fetch_sub(1);
}

UniqueHandle StartWorker(std::function<void()> body) {
  InstalledMachine& installed = CurrentInstalled();
  CountIn(installed);
  try {
    auto started = installed.machine.threads->Start([&installed, body = std::move(body)]() mutable {
      AdoptMachine(installed);
      installed.machine.clock->WorkerStarted();
      body();
      body = nullptr;  // frees what it owns while the worker still counts
      CountOut(installed);
    });
    if (started) return *std::move(started);
  } catch (...) {
    TakeBack(installed);
    throw;
  }
  TakeBack(installed);
  throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                          kCannotStart);
}

// The state that a new thread takes over: its work, and a reference that keeps this module loaded
// until the last instruction of the thread, which is in the system.
struct Starter {
  std::function<void()> body;
  HMODULE module = nullptr;
};

unsigned __stdcall Run(void* argument) {
  auto* starter = static_cast<Starter*>(argument);
  HMODULE module = starter->module;
  starter->body();
  // The callable may own handles and documents. They are freed here because the module is still
  // loaded and the call below runs no destructor of this frame.
  delete starter;
  FreeLibraryAndExitThread(module, 0);
}

class RealThreads final : public Threads {
 public:
  Result<UniqueHandle> Start(std::function<void()> body) override {
    auto starter = std::make_unique<Starter>();
    starter->body = std::move(body);
    if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                           reinterpret_cast<const wchar_t*>(&Run), &starter->module) == 0) {
      return Result<UniqueHandle>::Failure(EAGAIN);
    }
    // The runtime returns the handle as a number.
    const std::uintptr_t raw = _beginthreadex(nullptr, kWorkerStack, &Run, starter.get(),
                                              STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (raw == 0) {
      const int error = errno;
      FreeLibrary(starter->module);
      return Result<UniqueHandle>::Failure(static_cast<ErrorCode>(error));
    }
    static_cast<void>(starter.release());                   // the thread deletes it
    return UniqueHandle(reinterpret_cast<RawHandle>(raw));  // NOLINT(performance-no-int-to-ptr)
  }
};

}  // namespace

Threads& WindowsThreads() {
  static RealThreads threads;
  return threads;
}

Thread::Thread(std::function<void()> body) : handle(StartWorker(std::move(body))) {}

Thread& Thread::operator=(Thread&& other) noexcept {
  if (Joinable()) FailFast();
  handle = std::move(other.handle);
  return *this;
}

Thread::~Thread() {
  if (Joinable()) FailFast();
}

void Thread::Detach() {
  if (!Joinable()) throw std::system_error(EINVAL, std::generic_category(), kNotJoinable);
  handle.reset();
}

void Thread::Join() {
  if (!Joinable()) throw std::system_error(EINVAL, std::generic_category(), kNotJoinable);
  // Waits through the clock so that it counts a worker that joins another one as parked.
  CurrentMachine().clock->Wait(handle.get(), std::nullopt);
  handle.reset();
}

void StartDetached(std::function<void()> body) {
  Thread(std::move(body)).Detach();
}

}  // namespace Vx::Platform
