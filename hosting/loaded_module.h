#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/vx_service.h"
#include "hosting/store_hold.h"

namespace Vx::Hosting {

struct CommandResult {
  std::uint32_t code = 0;
  std::optional<std::wstring> text;  // empty if the module returned no response
  // The decision and reason from the command's record. Empty if the command neither changed nor
  // refused anything, if the module writes no records, or if there is no ModuleLog.
  std::wstring decision = {};
  std::wstring reason = {};
};

// A module's service object, used only through its slots, as a service host uses it. The destructor
// calls slot 0.
class ServiceSession {
 public:
  // Takes ownership of `created`, a module's new service object.
  explicit ServiceSession(Tessel::Server::Services::VxService* created) : service(created) {}

  // Access to the service for one call, during which this thread holds the services' mutex.
  struct Call {
    ServicesMutexHold hold{StoreUse::Write};
    Tessel::Server::Services::VxService& slots;

    Tessel::Server::Services::VxService* operator->() const { return &slots; }
  };

  // Use the result for one call, as in Slots()->Start(). Throws whatever ServicesMutexHold throws.
  // Threads that the service starts do not hold the mutex.
  Call Slots() { return {.slots = *service}; }

  // Destroys the service. Assign another session before the next call.
  void End() { service.reset(); }

  // Runs one command as `caller` and blocks until it finishes. Throws std::runtime_error if
  // `caller` is longer than 64 characters, and whatever Slots throws.
  CommandResult Execute(std::uint32_t id, const std::wstring& request, const std::wstring& caller);

 private:
  struct Destroyer {
    void operator()(Tessel::Server::Services::VxService* object) const { object->Destroy(1); }
  };
  std::unique_ptr<Tessel::Server::Services::VxService, Destroyer> service;
};

// Returns why the file cannot be loaded as a module, such as "imports X.dll, ...", or "" if it can.
// Runs none of its code, but loads the Windows libraries that it imports.
std::string WhyNoModule(const std::wstring& fullPath);

// A module loaded from a full path.
class LoadedModule {
 public:
  // Throws std::runtime_error, with advice for the user, if the file cannot be loaded.
  explicit LoadedModule(const std::wstring& fullPath);

  // Creates a service object. Throws std::runtime_error if the factory returns null or if the
  // services' mutex is needed but cannot be used.
  ServiceSession NewService() const;

  // Returns the export called `name`, or null if there is none.
  void* Find(const char* name) const;

 private:
  struct Unloader {
    void operator()(void* module) const noexcept;
  };
  std::unique_ptr<void, Unloader> module;
  Tessel::Server::Services::CreateServiceFunction factory = nullptr;
};

}  // namespace Vx::Hosting
