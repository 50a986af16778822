#pragma once

#include <cstdint>

#include <windows.h>

#include "platform/trust_provider.h"

namespace Vx::Platform {

// Verifies one signature of a file, the one at `index`, and reads who signed. `unionChoice` says
// what `subject` points to, and which member of WINTRUST_DATA's union it stands for: a file or a
// member of a catalog. Asks nobody anything, looks up no revocation, and leaves no state behind.
// Blocks while the file is read. Any thread.
SignatureVerdict VerifySignature(DWORD unionChoice, const void* subject, std::uint32_t index);

}  // namespace Vx::Platform
