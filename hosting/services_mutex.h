#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "host/vx_service.h"
#include "hosting/store_wait.h"
#include "platform/unique_handle.h"

// The module locks the store under an unqualified name. For a service that name lies in the global
// namespace, for any other program in that of its session, where it keeps no service out. So this
// tool, outside the services' session, takes the global object as well.

namespace Vx::Host {

// Whether a process of `session` whose %ProgramData% is `programData` shares the machine's store
// with services and not their mutex. `machineData` is the machine's own folder, empty where it is
// not known.
bool NeedsServicesMutex(std::uint32_t session, std::wstring_view programData,
                        std::wstring_view machineData);

// The services' mutex, which any thread may hold. Null where this process needs none.
using ServicesMutex = std::shared_ptr<void>;

enum class StoreUse { Read, Write };

// Opens the mutex that this process needs. Null if it needs none, or if no service has made it,
// because then none runs. Throws std::runtime_error, whose text advises the user, for a use that
// writes when this account may not open it, or when an object of another kind has the name. One
// that only reads goes on without, after a warning on standard error: a writer replaces the file in
// one step.
ServicesMutex ServicesMutexFor(StoreUse use);

// Holds `mutex`, which may be null, for the scope of a thread. Waits as AwaitStoreMutex does.
class ServicesMutexHold {
 public:
  explicit ServicesMutexHold(ServicesMutex mutex,
                             const HoldLimits& limits = {.timeout = std::chrono::milliseconds(0)});
  ServicesMutexHold(const ServicesMutexHold&) = delete;
  ServicesMutexHold& operator=(const ServicesMutexHold&) = delete;
  ~ServicesMutexHold();

 private:
  ServicesMutex held;
};

// Returns a service that holds the services' mutex, as soon as there is one, around each call of
// `inner` that can use the store, and destroys `inner` with itself. Returns `inner` where this
// process needs no such mutex. The threads that `inner` starts do not hold it. A call throws as
// ServicesMutexFor does.
Tessel::Server::Services::VxService* WithServicesMutex(Tessel::Server::Services::VxService& inner);

}  // namespace Vx::Host
