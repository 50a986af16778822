#pragma once

#include <string>

#include "security/pinned_keys.h"

namespace Vx::Hosting::Tool {

// Throws std::runtime_error if Windows accepts a signature of `program` made with a key in either
// set, wherever the file is. In a protected location, the module would start it as SYSTEM for any
// client, with arguments of the client's choice, and some of this tool's arguments name a library
// to load or a file to write.
//
// Also throws if the file cannot be read. Otherwise, a client could hide the signature by keeping
// the file open without sharing from the moment it was started.
void RefusePinnedSignature(const std::wstring& program, Tessel::Security::KeySet general,
                           Tessel::Security::KeySet restricted);

}  // namespace Vx::Hosting::Tool
