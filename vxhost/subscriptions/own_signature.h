#pragma once

#include <string>

#include "security/pinned_keys.h"

namespace Vx::Host {

// Throws std::runtime_error if Windows accepts a signature of `program` and a key of either set
// made one, wherever the file is. In a protected place the module would start it as SYSTEM
// for any client, with arguments of the client's choice, and some of this tool's arguments name a
// library to load or a file to write.
//
// Throws as well if the file cannot be read: a client that keeps it open without sharing, from the
// moment at which it was started, would otherwise hide the signature.
void RefusePinnedSignature(const std::wstring& program, Tessel::Security::KeySet general,
                           Tessel::Security::KeySet restricted);

}  // namespace Vx::Host
