#include "simulator/virtual_clock.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <system_error>
#include <utility>

#include <windows.h>

#include <winternl.h>

namespace Vx::Simulator {

namespace {

using Duration = Platform::Clock::Duration;

// Real time. A worker that is not in the clock may wait for the store's mutex, which other tests'
// processes share and hold for seconds while they store megabytes on a busy machine.
constexpr Duration kFirstPatience = std::chrono::seconds(30);

// If several waits have the same deadline, the first thread runs alone, so that the order is fixed.
// After this time the next is woken too, because the first may need a lock that the next holds.
constexpr Duration kTurnPatience{250};

// The longest pause of a worker that holds a lock: while it pauses, others may wait for the lock.
constexpr Duration kLockedPause{25};

// How often, in milliseconds, a parked worker polls a handle that a wait would reset.
constexpr DWORD kLookInterval = 2;

constexpr std::uint64_t kFirstTicks = 3'600'000;
constexpr std::uint64_t kFirstUtc = 133'500'000'000'000'000;  // in January 2024
constexpr std::uint64_t kFileTimePerMillisecond = 10'000;

// Declared here because the toolchain's headers omit it.
struct EventBasicInformation {
  ULONG type;  // 0 if manual-reset, 1 if auto-reset
  LONG state;
};
using NtQueryEventFunction = NTSTATUS(NTAPI*)(HANDLE, int, void*, ULONG, ULONG*);

NtQueryEventFunction NtQueryEventAddress() {
  static const auto address = reinterpret_cast<NtQueryEventFunction>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQueryEvent")));
  return address;
}

// Returns whether a wait leaves the state of `handle` unchanged.
bool KeepsItsState(HANDLE handle) {
  EventBasicInformation information{};
  if (NtQueryEventAddress()(handle, 0, &information, sizeof information, nullptr) >= 0) {
    return information.type == 0;
  }
  return GetProcessId(handle) != 0 || GetThreadId(handle) != 0;
}

// Consumes the signal of `handle`, if any.
bool TakeSignal(HANDLE handle) {
  const DWORD code = WaitForSingleObject(handle, 0);
  return code == WAIT_OBJECT_0 || code == WAIT_ABANDONED;
}

std::uint64_t Count(Duration length) {
  return static_cast<std::uint64_t>(std::max<Duration::rep>(length.count(), 0));
}

Platform::WaitResult Signalled() {
  return {Platform::WaitOutcome::Signalled, WAIT_OBJECT_0, 0};
}

Platform::WaitResult TimedOut() {
  return {Platform::WaitOutcome::TimedOut, WAIT_TIMEOUT, 0};
}

[[noreturn]] void Die(const std::string& why) {
  static_cast<void>(std::fprintf(stderr, "%s\n", why.c_str()));
  static_cast<void>(std::fflush(stderr));
  std::abort();
}

// Returns a duplicate of `handle`, or null if it is null.
Platform::UniqueHandle OwnHandle(HANDLE handle) {
  HANDLE own = nullptr;
  if (handle != nullptr && DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &own,
                                           0, FALSE, DUPLICATE_SAME_ACCESS) == 0) {
    Die("VirtualClock: the handle of a wait cannot be duplicated");
  }
  return Platform::UniqueHandle(own);
}

Platform::UniqueHandle MakeEvent() {
  Platform::UniqueHandle event(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  if (event == nullptr) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category());
  }
  return event;
}

}  // namespace

VirtualClock::VirtualClock()
    : patience(kFirstPatience), tickBase(kFirstTicks), utcBase(kFirstUtc) {}

VirtualClock::~VirtualClock() {
  const std::lock_guard guard(mutex);
  if (!waiters.empty()) Die("VirtualClock: destroyed while a thread waits in it. " + Describe());
}

void VirtualClock::Advance(Duration length) {
  const std::lock_guard driver(driving);
  Lock lock(mutex);
  const Duration target = now + length;
  while (StepTo(lock, target)) {
  }
  now = target;
}

bool VirtualClock::AdvanceUntil(const std::function<bool()>& reached, Duration limit) {
  const std::lock_guard driver(driving);
  Lock lock(mutex);
  const Duration target = now + limit;
  for (;;) {
    RequireRest(lock);
    lock.unlock();
    const bool done = reached();
    lock.lock();
    if (done) return true;
    if (!StepTo(lock, target)) return false;
  }
}

void VirtualClock::Settle() {
  const std::lock_guard driver(driving);
  Lock lock(mutex);
  RequireRest(lock);
}

void VirtualClock::JumpTicks(Duration asleep) {
  const std::lock_guard guard(mutex);
  slept += asleep;
  tickBase += Count(asleep);
  utcBase += Count(asleep) * kFileTimePerMillisecond;
}

void VirtualClock::SetTickCount(std::uint64_t ticks) {
  const std::lock_guard guard(mutex);
  tickBase = ticks - Count(now);
}

void VirtualClock::SetUtcFileTime(std::uint64_t fileTime) {
  const std::lock_guard guard(mutex);
  utcBase = fileTime - Count(now) * kFileTimePerMillisecond;
}

void VirtualClock::SetPatience(Duration limit) {
  const std::lock_guard guard(mutex);
  patience = limit;
}

Duration VirtualClock::Elapsed() const {
  const std::lock_guard guard(mutex);
  return now;
}

Duration VirtualClock::Moment() const {
  const std::lock_guard guard(mutex);
  return now + slept;
}

std::size_t VirtualClock::Workers() const {
  const std::lock_guard guard(mutex);
  return workers;
}

std::uint64_t VirtualClock::TickCount() const {
  const std::lock_guard guard(mutex);
  return tickBase + Count(now);
}

std::uint64_t VirtualClock::UtcFileTime() const {
  const std::lock_guard guard(mutex);
  return utcBase + Count(now) * kFileTimePerMillisecond;
}

void VirtualClock::Sleep(Duration length) {
  if (length <= Duration{0}) return;
  const bool worker = CallerIsWorker();
  std::unique_lock<std::mutex> driver(driving, std::defer_lock);
  if (!worker) driver.lock();
  Lock lock(mutex);
  const Duration deadline = now + length;
  if (worker) {
    WaitAsWorker(lock, nullptr, nullptr, deadline);
  } else {
    WaitOutside(lock, nullptr, nullptr, deadline);
  }
}

Platform::WaitResult VirtualClock::Wait(Platform::RawHandle handle,
                                        std::optional<Duration> length) {
  // A kernel wait fails for a null handle as it does for a closed one.
  const DWORD code = WaitForSingleObject(handle, 0);
  if (code == WAIT_FAILED) return {Platform::WaitOutcome::Failed, code, GetLastError()};
  if (code != WAIT_TIMEOUT) return {Platform::WaitOutcome::Signalled, code, 0};
  return WaitFor(handle, nullptr, length);
}

Platform::WaitResult VirtualClock::WaitForEither(Platform::RawHandle first,
                                                 Platform::RawHandle second, Duration length) {
  const HANDLE handles[] = {first, second};
  const auto look = [&handles] { return WaitForMultipleObjects(2, handles, FALSE, 0); };
  DWORD code = look();
  if (code == WAIT_TIMEOUT) {
    const Platform::WaitResult result = WaitFor(first, second, length);
    if (result.outcome != Platform::WaitOutcome::Signalled) return result;
    code = look();  // both keep their signals
  }
  if (code == WAIT_FAILED) return {Platform::WaitOutcome::Failed, code, GetLastError()};
  return {Platform::WaitOutcome::Signalled, code, 0};
}

Platform::WaitResult VirtualClock::WaitFor(Platform::RawHandle handle, Platform::RawHandle second,
                                           std::optional<Duration> length) {
  if (length && *length <= Duration{0}) return TimedOut();
  const bool worker = CallerIsWorker();
  std::unique_lock<std::mutex> driver(driving, std::defer_lock);
  if (!worker) driver.lock();
  Lock lock(mutex);
  std::optional<Duration> deadline;
  if (length) deadline = now + *length;
  return worker ? WaitAsWorker(lock, handle, second, deadline)
                : WaitOutside(lock, handle, second, deadline);
}

Platform::Result<Platform::UniqueHandle> VirtualClock::MakeTimer() {
  Platform::UniqueHandle timer(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  HANDLE own = nullptr;
  if (timer == nullptr || DuplicateHandle(GetCurrentProcess(), timer.get(), GetCurrentProcess(),
                                          &own, 0, FALSE, DUPLICATE_SAME_ACCESS) == 0) {
    return Platform::Failure(GetLastError());
  }
  const std::lock_guard guard(mutex);
  // If the map already has this handle value, it belonged to a timer that has been closed since.
  timers[timer.get()] = {Platform::UniqueHandle(own), std::nullopt, 0};
  return timer;
}

Platform::ErrorCode VirtualClock::SetTimer(Platform::RawHandle timer, Duration due) {
  const std::lock_guard guard(mutex);
  const auto found = timers.find(timer);
  if (found == timers.end()) return ERROR_INVALID_HANDLE;
  ResetEvent(found->second.event.get());
  found->second.due = now + due;
  found->second.turn = nextTurn++;
  return ERROR_SUCCESS;
}

void VirtualClock::WorkerStarting() {
  const std::lock_guard guard(mutex);
  ++workers;
}

void VirtualClock::WorkerStarted() {
  HANDLE thread = nullptr;
  DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &thread, 0, FALSE,
                  DUPLICATE_SAME_ACCESS);
  const std::lock_guard guard(mutex);
  threads[GetCurrentThreadId()].reset(thread);
}

void VirtualClock::WorkerNotStarted() {
  const std::lock_guard guard(mutex);
  --workers;
  changed.notify_all();
}

void VirtualClock::WorkerEnded() {
  const std::lock_guard guard(mutex);
  --workers;
  const auto self = threads.find(GetCurrentThreadId());
  if (self != threads.end()) {
    // Another thread may be waiting for this one, which ends shortly after this call.
    ending.push_back(std::move(self->second));
    threads.erase(self);
  }
  changed.notify_all();
}

Platform::WaitResult VirtualClock::WaitAsWorker(Lock& lock, Platform::RawHandle handle,
                                                Platform::RawHandle second,
                                                std::optional<Duration> deadline) {
  waiters.push_back({handle, OwnHandle(handle), handle != nullptr && KeepsItsState(handle),
                     OwnHandle(second), deadline, nextTurn++, MakeEvent(), Wake::No});
  const auto self = std::prev(waiters.end());
  changed.notify_all();
  const Wake wake = Park(lock, *self);
  waiters.erase(self);
  return wake == Wake::Signalled ? Signalled() : TimedOut();
}

// Never waits outside the lock on a handle whose signal a wait consumes, because the clock would
// count this thread as parked until it reacquires the lock. Instead, this function and AtRest poll
// the handle under the lock, and either may consume the signal.
VirtualClock::Wake VirtualClock::Park(Lock& lock, Waiter& waiter) {
  const HANDLE handles[] = {waiter.wake.get(), waiter.handle.get(), waiter.second.get()};
  const DWORD count = waiter.second != nullptr ? 3 : waiter.level ? 2 : 1;
  const DWORD limit = waiter.level || waiter.handle == nullptr ? INFINITE : kLookInterval;
  for (;;) {
    lock.unlock();
    const DWORD code = WaitForMultipleObjects(count, handles, FALSE, limit);
    lock.lock();
    if (code == WAIT_FAILED) Die("VirtualClock: a wait failed half-way");
    if (waiter.woken != Wake::No) return waiter.woken;
    if (code == WAIT_OBJECT_0 + 1 || code == WAIT_OBJECT_0 + 2) return Wake::Signalled;
    if (!waiter.level && waiter.handle != nullptr && TakeSignal(waiter.handle.get())) {
      return Wake::Signalled;
    }
  }
}

Platform::WaitResult VirtualClock::WaitOutside(Lock& lock, Platform::RawHandle handle,
                                               Platform::RawHandle second,
                                               std::optional<Duration> deadline) {
  for (;;) {
    if (!WaitToStep(lock, deadline.value_or(Duration::max()))) Die("VirtualClock: " + Describe());
    if (handle != nullptr && TakeSignal(handle)) return Signalled();
    if (second != nullptr && TakeSignal(second)) return Signalled();
    if (deadline && *deadline <= now) return TimedOut();
    const auto due = NextDue();
    if (due && (!deadline || due->at <= *deadline)) {
      now = std::max(now, due->at);
      Fire(*due);
    } else if (deadline) {
      now = *deadline;
    } else {
      // No worker can run, so only an outside thread can signal the handle.
      lock.unlock();
      const DWORD code = WaitForSingleObject(handle, static_cast<DWORD>(Count(patience)));
      lock.lock();
      if (code != WAIT_TIMEOUT) return Signalled();
      Die("VirtualClock: a thread waits for something that no other thread can do");
    }
  }
}

bool VirtualClock::CallerIsWorker() const {
  const std::lock_guard guard(mutex);
  return threads.count(GetCurrentThreadId()) != 0;
}

void VirtualClock::Release(Waiter& waiter, Wake reason) {
  waiter.woken = reason;
  SetEvent(waiter.wake.get());
}

bool VirtualClock::AtRest() {
  ending.erase(std::remove_if(ending.begin(), ending.end(),
                              [](const auto& thread) { return TakeSignal(thread.get()); }),
               ending.end());
  if (!ending.empty()) return false;
  if (waiters.size() != workers) return false;
  const auto runs = [](const Waiter& waiter) { return waiter.woken != Wake::No; };
  if (std::any_of(waiters.begin(), waiters.end(), runs)) return false;

  // Often all workers wait for the same stop event, so that one query is enough.
  Platform::RawHandle quiet = nullptr;
  bool rest = true;
  for (Waiter& waiter : waiters) {
    if (waiter.second == nullptr || !TakeSignal(waiter.second.get())) {
      if (waiter.handle == nullptr || (waiter.level && waiter.callersHandle == quiet)) continue;
      if (!TakeSignal(waiter.handle.get())) {
        quiet = waiter.callersHandle;
        continue;
      }
    }
    Release(waiter, Wake::Signalled);
    rest = false;
  }
  return rest;
}

bool VirtualClock::WaitForRest(Lock& lock, Duration limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!AtRest()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    changed.wait_for(lock, std::chrono::milliseconds(1));
  }
  return true;
}

void VirtualClock::RequireRest(Lock& lock) {
  if (!WaitForRest(lock, patience)) throw ClockStuck("VirtualClock: " + Describe());
}

std::optional<VirtualClock::Due> VirtualClock::NextDue() {
  std::optional<Due> next;
  const auto consider = [&next](Due candidate) {
    if (!next || std::pair(candidate.at, candidate.turn) < std::pair(next->at, next->turn)) {
      next = candidate;
    }
  };
  for (Waiter& waiter : waiters) {
    if (!waiter.deadline || waiter.woken != Wake::No) continue;
    consider({*waiter.deadline, waiter.turn, &waiter, nullptr});
  }
  for (auto& [handle, timer] : timers) {
    if (timer.due) consider({*timer.due, timer.turn, nullptr, &timer});
  }
  return next;
}

void VirtualClock::Fire(const Due& due) {
  if (due.waiter != nullptr) {
    Release(*due.waiter, Wake::Due);
    return;
  }
  due.timer->due.reset();
  SetEvent(due.timer->event.get());
}

// Waits until all workers are at rest, or until only the thread whose deadline is next may let them
// go on. False if neither happens.
bool VirtualClock::WaitToStep(Lock& lock, Duration limit) {
  const auto isNear = [&] {
    const auto next = NextDue();
    return next && next->at <= std::min(now + kLockedPause, limit);
  };
  const auto end = std::chrono::steady_clock::now() + patience;
  bool soon = isNear();
  do {
    if (WaitForRest(lock, kTurnPatience)) return true;
    if (std::exchange(soon, isNear()) && soon) return true;
  } while (std::chrono::steady_clock::now() < end);
  return false;
}

// Fires the next deadline once the workers are at rest. False if it is after `limit`.
bool VirtualClock::StepTo(Lock& lock, Duration limit) {
  if (!WaitToStep(lock, limit)) throw ClockStuck("VirtualClock: " + Describe());
  const auto due = NextDue();
  if (!due || due->at > limit) return false;
  now = std::max(now, due->at);
  Fire(*due);
  return true;
}

std::string VirtualClock::Describe() const {
  std::size_t parked = 0;
  for (const Waiter& waiter : waiters) {
    if (waiter.woken == Wake::No) ++parked;
  }
  std::string text = std::to_string(workers) + " workers, " + std::to_string(parked) +
                     " of them parked, " + std::to_string(ending.size()) + " ending, after " +
                     std::to_string(now.count()) + " ms of virtual time; threads:";
  for (const auto& [id, thread] : threads) text.append(" ").append(std::to_string(id));
  return text;
}

}  // namespace Vx::Simulator
