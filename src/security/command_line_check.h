#pragma once

#include <string>

#include "security/authenticode_facade.h"

namespace Vx::Tessel::Security {

// Returns whether the program of a command line (its first word) passes IsFileTrusted. A path with
// spaces must be quoted. An empty or overlong command line is not trusted. Does not throw.
bool IsCommandLineTrusted(VxAuthenticodeFacadeBase& facade,
                          const std::wstring& commandLine) noexcept;

}  // namespace Vx::Tessel::Security
