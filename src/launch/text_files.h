#pragma once

#include <cstddef>
#include <string>

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// No file that is read whole here is larger.
inline constexpr std::size_t kMaxTextFile = std::size_t{16} * 1024 * 1024;  // bytes

// The text of a file as Json::DecodeText has it. Empty, and logged, when it has no mark; empty when
// it cannot be read. `caller` is who the log lines are about.
std::wstring ReadTextFile(const std::wstring& path, const wchar_t* caller,
                          const Logging::TraceLogger& logger);

// Copies a file's bytes over another; true when all were written. The side that failed is logged. A
// destination that cannot be written whole is left as it was.
bool CopyFileContent(const std::wstring& source, const std::wstring& destination,
                     const wchar_t* caller, const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
