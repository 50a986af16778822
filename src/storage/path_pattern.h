#pragma once

#include <string_view>

namespace Vx::Tessel::Server::Storage {

// Whether `path` has the form of a file path: an optional drive ("C:"), an optional separator, then
// names without the characters that Windows forbids, one separator between two of them and perhaps
// one at the end. It is the language of
//   ^(?:[a-zA-Z]:)?[\\/]?([^\\/:*?"<>|]+[\\/]?)*[^\\/:*?"<>|]*$
// but takes linear time, where an expression engine may take exponential time or run out of stack.
bool IsFilePath(std::wstring_view path);

}  // namespace Vx::Tessel::Server::Storage
