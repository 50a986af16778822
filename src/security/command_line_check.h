#pragma once

#include <string>

#include "security/authenticode_facade.h"

namespace Vx::Tessel::Security {

// Whether the program of a command line (its first word) passes IsFileTrusted. A path with blanks
// must be quoted. An empty or too long command line is not trusted. Nothing is thrown.
bool IsCommandLineTrusted(VxAuthenticodeFacadeBase& facade,
                          const std::wstring& commandLine) noexcept;

}  // namespace Vx::Tessel::Security
