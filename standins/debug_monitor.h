#pragma once

namespace Vx::Tessel::Server::Logging {

// Debug output as OutputDebugString sends it, but with a bound on the wait for other processes. Any
// process of the machine may be the monitor that receives it or hold the mutex of its writers, so
// none of them is trusted to make progress.

// Whether a debugger or a monitor would show a line now. Cheap: asks Windows once per second.
bool DebugOutputIsShown() noexcept;

// Sends `text` to the debugger, or else to handlers of this process and to the monitor. Waits at
// most 100 ms for the monitor and its other writers. A monitor that has not taken the text by then
// gets no more text for a minute.
void SendDebugOutput(const wchar_t* text) noexcept;

}  // namespace Vx::Tessel::Server::Logging
