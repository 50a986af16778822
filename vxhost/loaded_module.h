#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/vx_service.h"

namespace Vx::Host {

// What a command came back with.
struct Answer {
  std::uint32_t code = 0;
  std::optional<std::wstring> text;  // empty when the module gave none
};

// A service object and the caller's contexts, used as the service host uses them: through the slots
// alone. Destroyed through slot 0.
class ServiceSession {
 public:
  // Takes over `created`, which came from a module's factory.
  explicit ServiceSession(Tessel::Server::Services::VxService* created) : service(created) {}

  Tessel::Server::Services::VxService& Slots() { return *service; }

  // Destroys the service; until another is assigned there is none.
  void End() { service.reset(); }

  // Runs one command as `caller` (at most 64 characters). Blocks until it is answered.
  Answer Execute(std::uint32_t id, const std::wstring& request, const std::wstring& caller);

 private:
  struct Destroyer {
    void operator()(Tessel::Server::Services::VxService* object) const { object->Destroy(1); }
  };
  std::unique_ptr<Tessel::Server::Services::VxService, Destroyer> service;
};

// A module loaded from a full path.
class LoadedModule {
 public:
  // Throws std::runtime_error with words that say what to do.
  explicit LoadedModule(const std::wstring& fullPath);

  // Calls the module's factory. Throws std::runtime_error when it gives nothing.
  ServiceSession NewService() const;

 private:
  struct Unloader {
    void operator()(void* module) const noexcept;
  };
  std::unique_ptr<void, Unloader> module;
  Tessel::Server::Services::CreateServiceFunction factory = nullptr;
};

}  // namespace Vx::Host
