#pragma once

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Writes the born-on date to the firmware if it has none, and copies the firmware's date into the
// shared store. Does nothing on a machine where Lumo Tessel does this work. Logs to `logger`.
// Catches every std::exception, after which the store was not written. Blocks for as long as WMI
// and the store take.
void SetBornOnDate(const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
