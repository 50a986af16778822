#pragma once

#include <string>
#include <string_view>

#include "json/json_text.h"

namespace Vx::Host {

// UTF-16 to UTF-8 and back; what is malformed becomes U+FFFD. Under the names of the command line's
// own world, where nearly every line needs one.
std::string Utf8(std::wstring_view text);
std::wstring Wide(std::string_view text);

// The content of a text file as UTF-16, its byte-order mark taken away. Throws std::runtime_error.
std::wstring ReadTextFile(const std::wstring& path);

// `path` made full against the working directory.
std::wstring FullPath(const std::string& path);

// The same of a file that has to exist. Throws std::runtime_error.
std::wstring FullPathOfFile(const std::string& path);

// A text given as it is, or as @FILE.
std::wstring TextOrFile(const std::string& argument);

// Where and why a text is no JSON: the module's parser has refused it with `fault`.
std::string FaultText(const std::wstring& text, const Json::ParseFault& fault);

}  // namespace Vx::Host
