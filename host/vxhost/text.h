#pragma once

#include <string>
#include <string_view>

namespace Vx::Host {

// UTF-16 to UTF-8 and back; what is malformed becomes U+FFFD.
std::string Utf8(std::wstring_view text);
std::wstring Wide(std::string_view text);

// The content of a text file as UTF-16, its byte-order mark taken away. Throws std::runtime_error.
std::wstring ReadTextFile(const std::wstring& path);

// Where and why a text, which the module's parser refused, is no JSON.
std::string JsonFault(const std::wstring& text);

}  // namespace Vx::Host
