#pragma once

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Writes the born-on date to the firmware if it has none, and copies the firmware's date to the
// shared store, unless Lumo Tessel does so. Logs to `logger` and catches every std::exception.
// Returns whether the store was written. Blocks for as long as WMI and the store take.
bool SetBornOnDate(const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
