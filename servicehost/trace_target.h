#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>

#include "servicehost/service_log.h"

namespace Vx::Hosting::ServiceHost {

// Event Tracing for Windows, as used by the service.
class TraceWriter {
 public:
  // The bytes of an event: provider traits, description, and one value per field.
  using Parts = std::array<std::string_view, 7>;

  virtual ~TraceWriter() = default;

  // Returns whether any session records events of this level (2 error, 3 warning, 4 information).
  virtual bool Listens(std::uint8_t level) const noexcept = 0;

  // Writes one self-describing event.
  virtual void Write(std::uint8_t level, const Parts& parts) noexcept = 0;
};

// Opens a writer for the provider Vx-Host-Service (see docs/operations.md).
std::shared_ptr<TraceWriter> OpenTraceWriter();

// Returns a target that writes every log entry as an event with the fields level, provider, caller,
// thread and message. Each event contains its own description, so tools can decode it without a
// manifest. If a session cannot keep up, events are lost, and Windows counts them.
LogTarget TraceTarget(std::shared_ptr<TraceWriter> writer);

}  // namespace Vx::Hosting::ServiceHost
