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

// Adds an event of an EVENTLOG_ type with message `id` from host_messages.mc to the event log.
using EventReport =
    std::function<void(std::uint16_t type, std::uint32_t id, const EventTexts& texts)>;

// Opens this machine's event log for the given source.
EventReport OpenEventLog(const std::wstring& source);

// Returns a target that reports what an operator must act on: the host's own warnings and errors,
// and a warning for each delivery whose command did not run. The module's levels do not help: even
// a successful launch logs errors. After 29 events in a minute, one more reports the overflow and
// later ones are omitted for a minute, because other programs share the event log. An event that is
// omitted or that Windows rejects does not count as lost, because the log files have it.
LogTarget EventLogTarget(EventReport report);

// Registers the event source `name` in the "Application" log with the message file `program`, which
// gives Event Viewer its texts. Throws std::runtime_error.
void AddEventSource(const std::wstring& name, const std::wstring& program);
// Does nothing if the source does not exist.
void RemoveEventSource(const std::wstring& name) noexcept;

}  // namespace Vx::Hosting::ServiceHost
