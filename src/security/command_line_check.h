#pragma once

#include <string>

#include "security/authenticode_facade.h"

namespace Vx::Tessel::Security {

// Whether the program that a command line names (its first word) passes IsFileTrusted. A path with
// blanks must be quoted; an empty or overlong command line is not trusted. Nothing is thrown.
bool IsCommandLineTrusted(VxAuthenticodeFacadeBase& facade,
                          const std::wstring& commandLine) noexcept;

}  // namespace Vx::Tessel::Security
