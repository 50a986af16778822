#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/vx_service.h"

namespace Vx::Host {

// The outcome of a command.
struct CommandResult {
  std::uint32_t code = 0;
  std::optional<std::wstring> text;  // empty when the module returned none
};

// A service object and its client contexts, used only through the slots, as the service host does.
// Destroyed through slot 0.
class ServiceSession {
 public:
  // Takes over `created`, which a module's factory returned.
  explicit ServiceSession(Tessel::Server::Services::VxService* created) : service(created) {}

  Tessel::Server::Services::VxService& Slots() { return *service; }

  // Destroys the service. No call may follow until another session is assigned.
  void End() { service.reset(); }

  // Runs one command as `caller` (at most 64 characters). Blocks until it has run.
  CommandResult Execute(std::uint32_t id, const std::wstring& request, const std::wstring& caller);

 private:
  struct Destroyer {
    void operator()(Tessel::Server::Services::VxService* object) const { object->Destroy(1); }
  };
  std::unique_ptr<Tessel::Server::Services::VxService, Destroyer> service;
};

// A module loaded from a full path.
class LoadedModule {
 public:
  // Throws std::runtime_error, whose text advises the user.
  explicit LoadedModule(const std::wstring& fullPath);

  // Calls the module's factory. The service holds the services' mutex where it shares the machine's
  // store with them (see services_mutex.h). Throws std::runtime_error when the factory returns null
  // or that mutex is needed and cannot be used.
  ServiceSession NewService() const;

  // The export of this name, null if there is none.
  void* Find(const char* name) const;

 private:
  struct Unloader {
    void operator()(void* module) const noexcept;
  };
  std::unique_ptr<void, Unloader> module;
  Tessel::Server::Services::CreateServiceFunction factory = nullptr;
};

}  // namespace Vx::Host
