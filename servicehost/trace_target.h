#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "servicehost/service_log.h"

namespace Vx::Host {

// Event tracing of Windows, as the service writes to it.
class TraceWriter {
 public:
  virtual ~TraceWriter() = default;

  // Whether a session records events of this level (2 error, 3 warning, 4 information).
  virtual bool Listens(std::uint8_t level) const noexcept = 0;

  // Writes one event that describes itself: the traits of the provider, the description of the
  // event, and a value per described field.
  virtual void Write(std::uint8_t level, std::span<const std::byte> traits,
                     std::span<const std::byte> description,
                     std::span<const std::vector<std::byte>> values) noexcept = 0;
};

// That of this machine, for the provider Vx-Host-Service of the service, see docs/operations.md.
std::unique_ptr<TraceWriter> OpenTraceWriter();

// Writes every record as an event with the fields level, provider, caller, thread and message. The
// description travels with each event, so that tools decode it without a manifest.
class TraceTarget final : public LogTarget {
 public:
  explicit TraceTarget(std::unique_ptr<TraceWriter> where) : writer(std::move(where)) {}

  // Always true: a session that does not keep up loses events, and Windows counts them.
  bool Write(const LogEntry& entry) noexcept override;

 private:
  std::unique_ptr<TraceWriter> writer;
};

}  // namespace Vx::Host
