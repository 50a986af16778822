#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>

namespace Vx::Json {

// Decodes a file's content according to its byte-order mark: UTF-8, or UTF-16 of either byte order.
// Returns nothing if there is no mark. Ignores an odd byte at the end of UTF-16.
std::optional<std::wstring> DecodeText(std::span<const std::byte> content);

}  // namespace Vx::Json
