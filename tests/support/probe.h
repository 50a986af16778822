#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/unique_handle.h"

namespace Vx::Tests {

// What a started probe program reports about itself (see probe_main.cpp).
struct ProbeReport {
  std::wstring commandLine;
  std::wstring workingDirectory;
  std::vector<std::wstring> arguments;
  std::vector<std::wstring> lines;  // the whole report

  // Returns whether it had the variable "NAME=value", if it reports that variable.
  bool HasVariable(const std::wstring& entry) const;
};

std::wstring TestFolder();

// Full path of a file of the build, relative to TestFolder(). If missing, ends the program.
std::wstring BuiltFile(const std::wstring& name);

// The probe program, the shipping module, and the module that trusts the tests' own authority.
std::wstring ProbePath();
std::wstring ModulePath();
std::wstring TestModulePath();

struct StartedProcess {
  Platform::UniqueHandle process;
  std::uint32_t id;
};

// Starts a program with these flags of CreateProcessW. Throws std::system_error.
StartedProcess StartProcess(std::wstring commandLine, std::uint32_t flags = 0);

std::wstring Escaped(const std::wstring& path);

// Returns the report that appears at `path`, or nothing after `limit`.
std::optional<ProbeReport> WaitForProbe(const std::wstring& path,
                                        std::chrono::milliseconds limit = std::chrono::seconds(20));

}  // namespace Vx::Tests
