#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>

namespace Vx::Json {

// Decodes a file by its byte-order mark: UTF-8, or UTF-16 of either byte order. Returns nothing if
// there is no such mark. Drops half a unit at the end.
std::optional<std::wstring> DecodeText(std::span<const std::byte> content);

}  // namespace Vx::Json
