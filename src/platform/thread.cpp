#include "platform/thread.h"

#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/runtime/fail_fast.h"
#include "platform/worker_machine.h"

namespace Vx::Platform {

namespace {

constexpr char kCannotStart[] = "cannot start a thread";
constexpr char kNotJoinable[] = "the thread is not joinable";

void TakeBack(InstalledMachine& installed) noexcept {
  installed.machine.clock->WorkerNotStarted();
  installed.workers.fetch_sub(1);
}

UniqueHandle StartWorker(std::function<void()> body) {
  InstalledMachine& installed = CurrentInstalled();
  installed.workers.fetch_add(1);
  installed.machine.clock->WorkerStarting();
  try {
    auto started = installed.machine.threads->Start([&installed, body = std::move(body)]() mutable {
      AdoptMachine(installed);
      installed.machine.clock->WorkerStarted();
      body();
      body = nullptr;  // destroyed while the worker is still counted
      // Notifies the clock first, because the clock's scope may end once the worker is no longer
      // counted.
      installed.machine.clock->WorkerEnded();
      installed.workers.fetch_sub(1);
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

}  // namespace

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
  // Waits through the clock, so that a worker that joins another is counted as blocked.
  CurrentMachine().clock->Wait(handle.get(), std::nullopt);
  handle.reset();
}

bool Thread::JoinFor(std::chrono::milliseconds length) {
  if (!Joinable()) throw std::system_error(EINVAL, std::generic_category(), kNotJoinable);
  if (CurrentMachine().clock->Wait(handle.get(), length).outcome != WaitOutcome::Signalled) {
    return false;
  }
  handle.reset();
  return true;
}

void Thread::CancelIo() noexcept {
  CurrentMachine().threads->CancelIo(handle.get());
}

void StartDetached(std::function<void()> body) {
  Thread(std::move(body)).Detach();
}

}  // namespace Vx::Platform
