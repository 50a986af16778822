#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The largest file that these functions read.
inline constexpr std::size_t kMaxTextFile = std::size_t{16} * 1024 * 1024;  // bytes

// Returns the text of a file as Json::DecodeText decodes it, or as UTF-8, and logged, if the file
// has no mark. Nothing, and logged, if the file cannot be read, is too large or contains a null
// character, at which Windows would cut the text. `caller` is the client of the log lines.
std::optional<std::wstring> ReadTextFile(const std::wstring& path, const wchar_t* caller,
                                         const Logging::TraceLogger& logger);

// Copies the bytes of one file over another. Returns true when all were written. Logs the file that
// could not be read or written. A destination that cannot be written whole stays as it was.
bool CopyFileContent(const std::wstring& source, const std::wstring& destination,
                     const wchar_t* caller, const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
