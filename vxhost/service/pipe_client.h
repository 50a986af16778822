#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "platform/unique_handle.h"
#include "servicehost/envelope.h"

namespace Vx::Hosting::Tool {

// The pipe owners that a client accepts, besides SYSTEM and the administrators.
enum class PipeOwner {
  System,   // no other, for an installed service
  Account,  // this process's account, for a service in its console
};

// A connection to a running service's pipe. Use from one thread.
class PipeClient {
 public:
  // Connects, waiting up to `patience` for a free instance. Sends nothing unless the server's
  // process is `service` and the pipe's owner is one of `accepted`. The process ID alone does not
  // suffice: another process could have created the pipe, passed its handle on, and exited before
  // the service received the same ID. Throws std::runtime_error with advice for the user.
  PipeClient(const std::wstring& path, std::uint32_t service, std::chrono::milliseconds patience,
             PipeOwner accepted = PipeOwner::System);

  // Runs one command. Blocks until its result arrives. Throws std::runtime_error if none does.
  CommandResult Execute(const ServiceHost::CommandEnvelope& command);

 private:
  Platform::UniqueHandle pipe;
};

// Connects to the running service `name`: to `process`, which may run in a console, or, if 0, to
// the process that the service manager reports. Throws std::runtime_error on failure.
PipeClient ConnectToService(const std::wstring& name, std::uint32_t process = 0);

}  // namespace Vx::Hosting::Tool
