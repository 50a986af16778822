#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/unique_handle.h"

namespace Vx::Tests {

// A probe's report about how it was started (see probe_main.cpp).
struct ProbeReport {
  std::wstring commandLine;
  std::wstring workingDirectory;
  std::vector<std::wstring> arguments;
  std::vector<std::wstring> lines;  // the whole report
};

std::wstring TestFolder();

// Returns the full path of a build file relative to TestFolder(). Exits the program if missing.
std::wstring BuiltFile(const std::wstring& name);

// The probe program, the shipping module, and the module that trusts the test authority.
std::wstring ProbePath();
std::wstring ModulePath();
std::wstring TestModulePath();

struct StartedProcess {
  Platform::UniqueHandle process;
  std::uint32_t id;
};

StartedProcess StartProcess(std::wstring commandLine, std::uint32_t flags = 0);

std::wstring Escaped(const std::wstring& path);

std::optional<ProbeReport> WaitForProbe(const std::wstring& path,
                                        std::chrono::milliseconds limit = std::chrono::seconds(20));

}  // namespace Vx::Tests
