#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "host/vx_service.h"

namespace Vx::Tests {

// What the module came back with.
struct ModuleReply {
  std::uint32_t code = 0;
  std::optional<std::wstring> response;  // nothing: a null pointer
};

// A service of the module that trusts the tests' own authority, loaded as its host loads it and
// used through its slots.
class LoadedService {
 public:
  // Ends the process with a message when the module cannot be loaded: there is nothing to test.
  LoadedService();
  LoadedService(const LoadedService&) = delete;
  LoadedService& operator=(const LoadedService&) = delete;
  ~LoadedService();

  ModuleReply Execute(std::uint32_t id, const std::wstring& request);
  Tessel::Server::Services::VxService& Slots() { return *service; }

 private:
  Tessel::Server::Services::VxService* service = nullptr;
  Tessel::Server::Services::ClientContext* context = nullptr;
};

// Threads of this process.
std::size_t ThreadCount();

// Waits until no more than `count` threads are left; false when more are after `limit`.
bool ThreadsEnd(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(60));

}  // namespace Vx::Tests
