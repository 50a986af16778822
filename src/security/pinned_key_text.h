#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Vx::Tessel::Security {

// Characters of a pinned key: an RSA-2048 public key in DER is 270 bytes.
inline constexpr std::size_t kPinnedKeyLength = 809;

// `der` as keys are compared: two lower-case hexadecimal digits a byte, single blanks between the
// bytes, none at either end.
std::string FormatPublicKey(std::span<const std::byte> der);

// Whether `text` is the exact form of an RSA-2048 public key with the exponent 65537. A key of
// another form could never equal a formatted one, so pinning it would be a silent mistake.
bool IsPinnedKey(std::string_view text) noexcept;

struct PinnedKeyFile {
  std::vector<std::string> keys;
  std::optional<std::size_t>
      badLine;  // number, from 1, of the first malformed line; reading ends there
};

// Reads the content of a key file: one key a line, `#` starts a comment, blank lines count for
// nothing, lines may end in CR LF. Blanks before a comment are dropped; any other blank that the
// form does not have makes the line malformed. The configure step has the same rules.
PinnedKeyFile ParsePinnedKeys(std::string_view content);

}  // namespace Vx::Tessel::Security
