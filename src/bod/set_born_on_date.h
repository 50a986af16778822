#pragma once

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Gives the firmware its born-on date if it has none, and copies what it then holds into the shared
// store. Leaves everything alone on a machine where Lumo Tessel does this work. Logs to `logger`;
// every std::exception ends here, and then the store was not written. Blocks for as long as WMI and
// the store take.
void SetBornOnDate(const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
