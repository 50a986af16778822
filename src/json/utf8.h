#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Vx::Json {

// Converts UTF-16 to UTF-8. An unpaired surrogate becomes U+FFFD.
std::string ToUtf8(std::wstring_view text);

// Converts UTF-8 to UTF-16. Each byte that is not part of a valid sequence becomes U+FFFD.
std::wstring ToWide(std::string_view text);

// Decodes a file's content according to its byte-order mark: UTF-8, or UTF-16 of either byte order.
// Returns nothing if there is no mark. Ignores an odd byte at the end of UTF-16.
std::optional<std::wstring> DecodeText(std::span<const std::byte> content);

// Returns whether `text` is valid UTF-8: shortest forms, no surrogates. U+0000 is allowed.
bool IsUtf8(std::string_view text) noexcept;

}  // namespace Vx::Json
