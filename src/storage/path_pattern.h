#pragma once

#include <string_view>

namespace Vx::Tessel::Server::Storage {

// Returns whether `path` has the form of a file path: an optional drive ("C:"), an optional
// separator, then names without the characters that Windows forbids, with one separator between two
// names and an optional one at the end. Accepts the same strings as
//   ^(?:[a-zA-Z]:)?[\\/]?([^\\/:*?"<>|]+[\\/]?)*[^\\/:*?"<>|]*$
// in linear time. A regex engine may take exponential time or run out of stack.
bool IsFilePath(std::wstring_view path);

}  // namespace Vx::Tessel::Server::Storage
