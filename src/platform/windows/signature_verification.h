#pragma once

#include <cstdint>

#include <windows.h>

#include "platform/trust_provider.h"
#include "platform/windows/signature_functions.h"

namespace Vx::Platform {

// Verifies the signature at `index` of a file and reads the signer. `functions` must be complete.
// `unionChoice` names the member of WINTRUST_DATA's union that `subject` points to: a file or a
// catalog member. No prompts, no revocation checks. Blocks while it reads the file. Thread-safe.
SignatureVerdict VerifySignature(const SignatureFunctions& functions, DWORD unionChoice,
                                 const void* subject, std::uint32_t index);

}  // namespace Vx::Platform
