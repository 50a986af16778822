#pragma once

#include <cstdint>

#include "companion/behaviors.h"
#include "host/logging.h"
#include "storage/bson_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The lockdown mode that means S mode.
inline constexpr std::int32_t kLockedMode = 2;

// Returns the lockdown mode that Windows' policy library reports now, or 0 on failure. Locks the
// library, loads it only if it is trusted, and unloads it. `callerName` is for the log.
std::int32_t QueryLockoutMode(const wchar_t* callerName);

namespace Qubo {

// Compares the S mode that Windows reports now with that of the first start, which the constructor
// reads from the service's document.
class WindowsModeCheckBehavior final : public Base::ModeCheckBehavior {
 public:
  // If the store cannot be read, logs that and treats the first mode as unknown.
  WindowsModeCheckBehavior();

  bool HasBeenInSMode() override;
  bool IsInSMode() const override;

 private:
  const Logging::TraceLogger* logger;
  Storage::BsonDocument document;
};

}  // namespace Qubo

}  // namespace Vx::Tessel::Server::Services::Orvane
