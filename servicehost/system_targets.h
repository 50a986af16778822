#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "servicehost/service_log.h"

// The targets through which Windows shows a service's log: the event log and event tracing.

namespace Vx::Hosting::ServiceHost {

// The strings inserted into a message: message, provider, client and thread.
using EventTexts = std::array<std::wstring, 4>;

// Writes an event. `type` is an EVENTLOG_ constant, and `id` a message ID in host_messages.mc.
using EventReport =
    std::function<void(std::uint16_t type, std::uint32_t id, const EventTexts& texts)>;

// Opens this machine's event log for the given source.
EventReport OpenEventLog(const std::wstring& source);

// Returns a target that reports what an operator must act on: the host's own warnings and errors,
// and a warning for each delivery whose command did not run. The module's log levels do not show
// this: even a successful launch logs errors. After 29 events in a minute, a warning about the
// overflow replaces the next, and more are omitted for a minute, because others share the event
// log. An event that is omitted or that Windows rejects is not lost, because the log files have it.
LogTarget EventLogTarget(EventReport report);

// The bytes of a trace event: provider traits, description, and one value per field.
using TraceParts = std::array<std::string_view, 7>;

// Writes a self-describing trace event. `level` is 2 (error), 3 (warning) or 4 (information).
using TraceReport = std::function<void(std::uint8_t level, const TraceParts& parts)>;

// Opens the provider Vx-Host-Service (see docs/operations.md).
TraceReport OpenTrace();

// Returns a target that writes every log entry as an event with the fields level, provider, caller,
// thread and message. Each event contains its own description, so tools can decode it without a
// manifest. If a session cannot keep up, events are lost, and Windows counts them.
LogTarget TraceTarget(TraceReport report);

}  // namespace Vx::Hosting::ServiceHost
