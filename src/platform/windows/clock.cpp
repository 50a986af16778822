#include "platform/clock.h"

#include <algorithm>
#include <limits>

#include <windows.h>

#include "platform/windows/capabilities.h"

namespace Vx::Platform {

namespace {

// The longest single wait. INFINITE itself means "no limit".
constexpr std::int64_t kLongestWait = INFINITE - 1;
constexpr std::int64_t kTicksPerMillisecond = 10'000;  // FILETIME units

class RealClock final : public Clock {
 public:
  std::uint64_t TickCount() const override { return GetTickCount64(); }

  std::uint64_t UtcFileTime() const override {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return (std::uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime;
  }

  void Sleep(Duration length) override {
    InParts(length, [](DWORD part) {
      ::Sleep(part);
      return DWORD{WAIT_TIMEOUT};
    });
  }

  WaitResult Wait(RawHandle handle, std::optional<Duration> length) override {
    if (!length) return Interpret(WaitForSingleObject(handle, INFINITE));
    return InParts(*length, [handle](DWORD part) { return WaitForSingleObject(handle, part); });
  }

  WaitResult WaitForEither(RawHandle first, RawHandle second, Duration length) override {
    const HANDLE handles[] = {first, second};
    return InParts(
        length, [&handles](DWORD part) { return WaitForMultipleObjects(2, handles, FALSE, part); });
  }

  Result<UniqueHandle> MakeTimer() override {
    UniqueHandle timer(CreateWaitableTimerW(nullptr, FALSE, nullptr));
    if (timer == nullptr) return Failure(GetLastError());
    return timer;
  }

  ErrorCode SetTimer(RawHandle timer, Duration due) override {
    constexpr std::int64_t kLongestDue =
        std::numeric_limits<std::int64_t>::max() / kTicksPerMillisecond;
    LARGE_INTEGER relative;  // negative means from now
    relative.QuadPart =
        -std::clamp<std::int64_t>(due.count(), 0, kLongestDue) * kTicksPerMillisecond;
    if (SetWaitableTimer(timer, &relative, 0, nullptr, nullptr, FALSE) == 0) return GetLastError();
    return 0;
  }

  void WorkerStarting() override {}
  void WorkerEnded() override {}

 private:
  template <typename WaitOnce>
  static WaitResult InParts(Duration length, WaitOnce&& wait) {
    std::int64_t left = length.count();
    for (;;) {
      const std::int64_t part = std::clamp<std::int64_t>(left, 0, kLongestWait);
      const WaitResult result = Interpret(wait(static_cast<DWORD>(part)));
      left -= part;
      if (result.outcome != WaitOutcome::TimedOut || left <= 0) return result;
    }
  }

  static WaitResult Interpret(DWORD code) {
    switch (code) {
      case WAIT_OBJECT_0:
      case WAIT_OBJECT_0 + 1:
      case WAIT_ABANDONED:
        return {WaitOutcome::Signalled, code, 0};
      case WAIT_TIMEOUT:
        return {WaitOutcome::TimedOut, code, 0};
      default:
        return {WaitOutcome::Failed, code, GetLastError()};
    }
  }
};

}  // namespace

Clock& WindowsClock() {
  static RealClock clock;
  return clock;
}

}  // namespace Vx::Platform
