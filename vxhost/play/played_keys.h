#pragma once

#include "security/pinned_keys.h"

namespace Vx::Tessel::Security {

// The keys that this build trusts. In this program, GeneralKeys and RestrictedKeys also contain a
// key that counts as pinned on a simulated machine and that no real signature has.
KeySet BuiltGeneralKeys() noexcept;
KeySet BuiltRestrictedKeys() noexcept;

}  // namespace Vx::Tessel::Security
