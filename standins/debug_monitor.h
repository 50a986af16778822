#pragma once

namespace Vx::Tessel::Server::Logging {

// Debug output as OutputDebugString sends it, but with a bounded wait. Any process can be the
// monitor that receives it, or hold the writers' mutex, so none is trusted to make progress.

// Returns whether a debugger or monitor would show a line now. Asks Windows once a second at most.
bool DebugOutputIsShown() noexcept;

// Sends `text` to the debugger, or otherwise to this process's handlers and the monitor. Waits at
// most 100 ms for the monitor and its other writers. Skips a slow monitor for the next minute.
void SendDebugOutput(const wchar_t* text) noexcept;

}  // namespace Vx::Tessel::Server::Logging
