#pragma once

#include <span>
#include <string_view>

namespace Vx::Tessel::Security {

using KeySet = std::span<const std::string_view>;

// The keys that this build trusts, in the form of FormatPublicKey. They are compiled in, from the
// files that the configure step names, so that nobody on the machine can widen them; without files
// the sets are empty and nothing is trusted. A program links one implementation: `pins`, or
// `pins_test` with the keys of the throwaway test authority.
KeySet GeneralKeys() noexcept;

// The smaller set, for what the service starts by itself.
KeySet RestrictedKeys() noexcept;

}  // namespace Vx::Tessel::Security
