#include "servicehost/pipe_io.h"

#include <vector>

#include <windows.h>

namespace Vx::Hosting::ServiceHost {

namespace {

constexpr DWORD kPiece = 16384;  // bytes per read

}  // namespace

// One overlapped operation. Windows uses the OVERLAPPED structure and the buffer until the
// operation completes, so Finish never returns before that.
struct PipeMessages::Operation {
  explicit Operation(const PipeMessages& owner) : messages(owner) {
    overlapped.hEvent = owner.finished.get();
  }
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  // `started` and GetLastError() are from the call that started the operation.
  PipeOutcome Finish(BOOL started, DWORD patience) {
    error = started != FALSE ? ERROR_SUCCESS : GetLastError();
    if (error == ERROR_IO_PENDING) {
      const HANDLE handles[] = {messages.finished.get(), messages.stop};
      const DWORD count = messages.stop != nullptr ? 2 : 1;
      const DWORD wait = WaitForMultipleObjects(count, handles, FALSE, patience);
      if (wait != WAIT_OBJECT_0) CancelIoEx(messages.pipe, &overlapped);
      const BOOL done = GetOverlappedResult(messages.pipe, &overlapped, &transferred, TRUE);
      error = done != FALSE ? ERROR_SUCCESS : GetLastError();
      if (error == ERROR_OPERATION_ABORTED) {
        return wait == WAIT_OBJECT_0 + 1 ? PipeOutcome::Stopped : PipeOutcome::TimedOut;
      }
    } else if (error == ERROR_SUCCESS || error == ERROR_MORE_DATA) {
      const BOOL done = GetOverlappedResult(messages.pipe, &overlapped, &transferred, TRUE);
      if (done == FALSE) error = GetLastError();
    }
    return error == ERROR_SUCCESS || error == ERROR_MORE_DATA ? PipeOutcome::Done
                                                              : PipeOutcome::Ended;
  }

  const PipeMessages& messages;
  OVERLAPPED overlapped{};
  DWORD transferred = 0;
  DWORD error = 0;
};

PipeMessages::PipeMessages(Platform::RawHandle end, Platform::RawHandle stopEvent)
    : pipe(end), stop(stopEvent), finished(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

PipeOutcome PipeMessages::Connect() {
  if (finished == nullptr) return PipeOutcome::Ended;
  Operation connect(*this);
  const PipeOutcome outcome = connect.Finish(ConnectNamedPipe(pipe, &connect.overlapped), INFINITE);
  return connect.error == ERROR_PIPE_CONNECTED ? PipeOutcome::Done : outcome;
}

PipeOutcome PipeMessages::Read(std::string& message, std::size_t limit,
                               std::chrono::milliseconds patience) {
  if (finished == nullptr) return PipeOutcome::Ended;
  message.clear();
  std::vector<char> piece(kPiece);
  while (true) {
    // A read that completes at once never checks the event, so a busy client could prevent a stop.
    if (stop != nullptr && WaitForSingleObject(stop, 0) == WAIT_OBJECT_0) {
      return PipeOutcome::Stopped;
    }
    Operation read(*this);
    const BOOL started = ReadFile(pipe, piece.data(), kPiece, nullptr, &read.overlapped);
    const PipeOutcome outcome = read.Finish(started, static_cast<DWORD>(patience.count()));
    if (outcome != PipeOutcome::Done) return outcome;
    if (message.size() + read.transferred > limit) return PipeOutcome::Ended;
    message.append(piece.data(), read.transferred);
    if (read.error != ERROR_MORE_DATA) return PipeOutcome::Done;
  }
}

PipeOutcome PipeMessages::Write(const std::string& message, std::chrono::milliseconds patience) {
  if (finished == nullptr) return PipeOutcome::Ended;
  Operation write(*this);
  const BOOL started = WriteFile(pipe, message.data(), static_cast<DWORD>(message.size()), nullptr,
                                 &write.overlapped);
  const PipeOutcome outcome = write.Finish(started, static_cast<DWORD>(patience.count()));
  if (outcome != PipeOutcome::Done) return outcome;
  return write.transferred == message.size() ? PipeOutcome::Done : PipeOutcome::Ended;
}

}  // namespace Vx::Hosting::ServiceHost
