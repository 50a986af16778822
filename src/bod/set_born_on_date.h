#pragma once

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Unless Lumo Tessel is installed, writes the born-on date to the firmware if it has none, and
// copies it to the shared store. Logs to `logger` and catches every std::exception. Returns whether
// the store was written. Blocks for as long as WMI and the store take.
bool SetBornOnDate(const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
