#pragma once

#include "host/logging.h"
#include "launch/behaviors.h"
#include "storage/bson_document.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

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

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
