#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>

namespace Vx::Json {

// The text of a file whose byte-order mark says how it is encoded: UTF-8, or UTF-16 of either byte
// order. Nothing without such a mark; half a unit at the end is dropped.
std::optional<std::wstring> DecodeText(std::span<const std::byte> content);

}  // namespace Vx::Json
