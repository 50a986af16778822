#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "platform/result.h"
#include "platform/unique_handle.h"

namespace Vx::Platform {

enum class WaitOutcome { Signalled, TimedOut, Failed };

struct WaitResult {
  WaitOutcome outcome = WaitOutcome::Failed;
  std::uint32_t code = 0;  // the result of WaitForSingleObject
  ErrorCode lastError = 0;
};

// Time, and every wait with a time limit. Nothing else in the program sleeps, sets a timer or reads
// a clock, so that tests run hours of real code in milliseconds. Thread-safe.
class Clock {
 public:
  using Duration = std::chrono::milliseconds;

  virtual ~Clock() = default;

  // Returns milliseconds since Windows started, including time asleep.
  virtual std::uint64_t TickCount() const = 0;

  // Returns UTC in 100-nanosecond units since 1601-01-01 (FILETIME).
  virtual std::uint64_t UtcFileTime() const = 0;

  virtual void Sleep(Duration length) = 0;

  // Blocks until `handle` is signaled or `length`, if given, passes. Fails on a null or closed one.
  virtual WaitResult Wait(RawHandle handle, std::optional<Duration> length) = 0;

  // Waits for either of two manual-reset events. `code` is 0 if the first is signaled, whether or
  // not the second is too, and 1 if only the second is.
  virtual WaitResult WaitForEither(RawHandle first, RawHandle second, Duration length) = 0;

  // Returns an unnamed, auto-reset waitable timer for Wait.
  virtual Result<UniqueHandle> MakeTimer() = 0;

  // Makes `timer` fire once, `due` from now, without waking the machine. Returns zero or the error.
  virtual ErrorCode SetTimer(RawHandle timer, Duration due) = 0;

  // Thread accounting, called only by Thread (thread.h), because a virtual clock advances only
  // while every worker is blocked in one of the waits above. The creating thread calls
  // WorkerStarting before the new thread exists, and WorkerNotStarted if it cannot be created. The
  // new thread calls WorkerStarted first and WorkerEnded last.
  virtual void WorkerStarting() = 0;
  virtual void WorkerStarted() {}
  virtual void WorkerNotStarted() { WorkerEnded(); }
  virtual void WorkerEnded() = 0;
};

}  // namespace Vx::Platform
