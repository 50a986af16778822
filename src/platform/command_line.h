#pragma once

#include <string>
#include <vector>

namespace Vx::Platform {

// The words of a command line as CommandLineToArgvW splits it; empty on failure. Looks at the text
// only, so there is nothing for a test to replace. `commandLine` is not empty: for an empty one
// Windows answers with the path of the running program.
std::vector<std::wstring> SplitCommandLine(const std::wstring& commandLine);

}  // namespace Vx::Platform
