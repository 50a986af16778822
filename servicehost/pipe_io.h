#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "platform/unique_handle.h"

namespace Vx::Host {

// How an operation on a pipe ended.
enum class PipeOutcome {
  Done,
  Ended,     // the other side has gone, or broke the protocol
  TimedOut,  // cancelled
  Stopped,   // cancelled because the stop event was signalled
};

// Messages over one end of a named pipe in message mode that was opened for overlapped operations.
// Borrows both handles. One thread. Every wait ends with the stop event, which may be null.
class PipeMessages {
 public:
  PipeMessages(Platform::RawHandle pipe, Platform::RawHandle stop);

  // Server: waits for a client.
  PipeOutcome Connect();

  // Reads a whole message into `message`. Ended also for one of more than `limit` bytes.
  PipeOutcome Read(std::string& message, std::size_t limit, std::chrono::milliseconds patience);

  PipeOutcome Write(const std::string& message, std::chrono::milliseconds patience);

 private:
  struct Operation;

  Platform::RawHandle pipe;
  Platform::RawHandle stop;
  Platform::UniqueHandle finished;  // null if Windows refused it: every operation then fails
};

}  // namespace Vx::Host
