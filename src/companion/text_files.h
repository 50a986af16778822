#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

inline constexpr std::size_t kMaxTextFile = std::size_t{16} * 1024 * 1024;  // bytes

// Decodes a text file as Json::DecodeText does. If it has no byte order mark, decodes it as UTF-8
// and logs that. Logs and returns nothing if the file cannot be read, is too large or contains a
// NUL, at which Windows would truncate the text. `caller` is the client that the log lines name.
std::optional<std::wstring> ReadTextFile(const std::wstring& path, const wchar_t* caller,
                                         const Logging::TraceLogger& logger);

// Copies the bytes of one file over another. Returns true if all were written, otherwise logs the
// file that failed. The destination is then unchanged, unless it had to be overwritten in place.
bool CopyFileContent(const std::wstring& source, const std::wstring& destination,
                     const wchar_t* caller, const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
