#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "host/vx_service.h"
#include "hosting/store_wait.h"
#include "platform/unique_handle.h"

// The module locks the store with a mutex whose name is unqualified. A service creates it in the
// global namespace, any other program in its own session's namespace, where it does not block a
// service. Outside the services' session, this tool therefore also takes the global mutex.

namespace Vx::Hosting {

// Returns whether a process in `session`, with `programData` as its %ProgramData%, shares the store
// with services but not their mutex. `machineData` is the machine-wide folder, or empty if unknown.
bool NeedsServicesMutex(std::uint32_t session, std::wstring_view programData,
                        std::wstring_view machineData);

// The services' mutex, which any thread may acquire. Null if this process does not need it.
using ServicesMutex = std::shared_ptr<void>;

enum class StoreUse { Read, Write };

// Opens the services' mutex. Returns null if this process does not need it, or if it does not exist
// because no service is running. For StoreUse::Write, throws std::runtime_error with advice for the
// user if this account may not open the mutex or another kind of object has the name. For
// StoreUse::Read, prints a warning to standard error and returns null in those cases, because
// writers replace the file atomically.
ServicesMutex ServicesMutexFor(StoreUse use);

// Holds `mutex`, which may be null, on the current thread. Waits as AwaitStoreMutex does.
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

// Wraps `inner` in a service that holds the services' mutex, once one exists, during each call that
// may use the store. The wrapper owns `inner`. Returns `inner` itself if this process does not need
// the mutex. Threads started by `inner` do not hold it. Calls throw as ServicesMutexFor does.
Tessel::Server::Services::VxService* WithServicesMutex(Tessel::Server::Services::VxService& inner);

}  // namespace Vx::Hosting
