#pragma once

#include <span>
#include <string_view>

namespace Vx::Tessel::Security {

using KeySet = std::span<const std::string_view>;

// The keys that this build trusts, in the form of FormatPublicKey. They are compiled in from files
// that are named when the build is configured, so that no process on the machine can add one. If no
// files are named, the sets are empty and nothing is trusted. A program links one implementation:
// `pins`, or `pins_test` with the keys of the throwaway test authority.
KeySet GeneralKeys() noexcept;

// The smaller set, for programs that the service itself starts.
KeySet RestrictedKeys() noexcept;

}  // namespace Vx::Tessel::Security
