#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "servicehost/service_log.h"

namespace Vx::Hosting::ServiceHost {

// Event Tracing for Windows, as used by the service.
class TraceWriter {
 public:
  virtual ~TraceWriter() = default;

  // Returns whether a session records events of this level (2 error, 3 warning, 4 information).
  virtual bool Listens(std::uint8_t level) const noexcept = 0;

  // Writes one self-describing event: provider traits, description, and one value per field.
  virtual void Write(std::uint8_t level, std::span<const std::byte> traits,
                     std::span<const std::byte> description,
                     std::span<const std::vector<std::byte>> values) noexcept = 0;
};

// Opens a writer for the provider Vx-Host-Service (see docs/operations.md).
std::unique_ptr<TraceWriter> OpenTraceWriter();

// Writes every log entry as an event with the fields level, provider, caller, thread and message.
// Each event carries its description, so tools can decode it without a manifest.
class TraceTarget final : public LogTarget {
 public:
  explicit TraceTarget(std::unique_ptr<TraceWriter> where) : writer(std::move(where)) {}

  // A session that cannot keep up loses events, and Windows counts them.
  void Write(const LogEntry& entry) override;

 private:
  std::unique_ptr<TraceWriter> writer;
};

}  // namespace Vx::Hosting::ServiceHost
