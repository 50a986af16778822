#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "platform/unique_handle.h"
#include "servicehost/envelope.h"

namespace Vx::Host {

// A connection to the pipe of a running service. One thread.
class PipeClient {
 public:
  // Connects, waiting up to `patience` for a free instance. Sends nothing to a server whose process
  // is not `service`, because any process can open a pipe of that name first. Throws
  // std::runtime_error, whose text advises the user.
  PipeClient(const std::wstring& path, std::uint32_t service, std::chrono::milliseconds patience);

  // Runs one command. Blocks until its result arrives. Throws std::runtime_error when the
  // connection ends first.
  ResultEnvelope Execute(const CommandEnvelope& command);

 private:
  Platform::UniqueHandle pipe;
};

// Connects to the running service of this name: to `process` or, if 0, to the one that the service
// manager names. Throws like the constructor.
PipeClient ConnectToService(const std::wstring& name, std::uint32_t process = 0);

}  // namespace Vx::Host
