#pragma once

#include <cstdint>

#include "host/logging.h"
#include "launch/behaviors.h"
#include "storage/bson_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The lockdown mode of a machine in S mode.
inline constexpr std::int32_t kLockedMode = 2;

// The lockdown mode as Windows' policy library reports it now, 0 also when it cannot be asked. The
// library is loaded only when it is trusted, and unloaded again. `callerName` is for the log.
std::int32_t QueryLockoutMode(const wchar_t* callerName);

namespace Qubo {

// S mode now, from Windows, and at the first start, from the service's document as it was when this
// object was made.
class WindowsModeCheckBehavior final : public Base::ModeCheckBehavior {
 public:
  // A store that cannot be read is logged; then the first mode is unknown.
  WindowsModeCheckBehavior();

  bool HasBeenInSMode() override;
  bool IsInSMode() const override;

 private:
  const Logging::TraceLogger* logger;
  Storage::BsonDocument document;
};

}  // namespace Qubo

}  // namespace Vx::Tessel::Server::Services::Orvane
