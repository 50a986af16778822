#pragma once

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Copies the machine's registration data to where the console user's programs look for it; true
// when that was done. Nothing is copied unless both paths could be expanded as that user. `caller`
// is who the log lines are about. The copying, too, is done with that user's rights.
bool CopyRegistrationData(const wchar_t* caller, const Logging::TraceLogger& logger);

// The same after a resume, where the user's path is asked for first and the machine's only if there
// is one.
bool RefreshRegistrationData(const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
