#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "servicehost/service_log.h"

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

// Registers the event source `name` in the "Application" log. `program` is the message file, from
// which Event Viewer takes the texts. Throws std::runtime_error on failure.
void AddEventSource(const std::wstring& name, const std::wstring& program);
// Does nothing if the source does not exist.
void RemoveEventSource(const std::wstring& name) noexcept;

}  // namespace Vx::Hosting::ServiceHost
