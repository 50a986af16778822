#pragma once

#include "security/pinned_keys.h"

namespace Vx::Tessel::Security {

// The keys that this build trusts. In this program GeneralKeys and RestrictedKeys also hold the key
// that counts as pinned on a simulated machine. No real signature has that key. All are constants.
KeySet BuiltGeneralKeys() noexcept;
KeySet BuiltRestrictedKeys() noexcept;

}  // namespace Vx::Tessel::Security
