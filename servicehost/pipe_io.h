#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "platform/unique_handle.h"

namespace Vx::Hosting::ServiceHost {

enum class PipeOutcome {
  Done,
  Ended,     // the other side disconnected or broke the protocol
  TimedOut,  // canceled because the time limit expired
  Stopped,   // canceled by the stop event
};

// Exchanges messages over one end of a message-mode named pipe, opened for overlapped I/O. Borrows
// both handles. Use from one thread at a time. The stop event, which may be null, ends all waits.
class PipeMessages {
 public:
  PipeMessages(Platform::RawHandle pipe, Platform::RawHandle stop);

  // Waits for a client to connect to this server end.
  PipeOutcome Connect();

  // Reads a whole message. Also returns Ended if it is longer than `limit` bytes.
  PipeOutcome Read(std::string& message, std::size_t limit, std::chrono::milliseconds patience);

  PipeOutcome Write(const std::string& message, std::chrono::milliseconds patience);

 private:
  struct Operation;

  Platform::RawHandle pipe;
  Platform::RawHandle stop;
  Platform::UniqueHandle finished;  // null if it cannot be created: every operation then fails
};

}  // namespace Vx::Hosting::ServiceHost
