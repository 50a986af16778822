#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace Vx::Tests {

// What a started probe program says of itself, see probe_main.cpp.
struct ProbeReport {
  std::wstring commandLine;
  std::wstring workingDirectory;
  std::vector<std::wstring> arguments;
  std::vector<std::wstring> lines;  // all of it

  // Whether it had this variable, "NAME=value", of those that it reports.
  bool HasVariable(const std::wstring& entry) const;
};

// Full path of the folder of the running test program.
std::wstring TestFolder();

// Full path of a file of the build that is named from TestFolder(). If there is none, ends the
// program with one line.
std::wstring BuiltFile(const std::wstring& name);

// Full paths of the probe program, of the module as it ships, and of the one that trusts the tests'
// own authority.
std::wstring ProbePath();
std::wstring ModulePath();
std::wstring TestModulePath();

// The path as it stands in a JSON text.
std::wstring Escaped(const std::wstring& path);

// The report that appears at `path`; empty when there is none within `limit`.
std::optional<ProbeReport> WaitForProbe(const std::wstring& path,
                                        std::chrono::milliseconds limit = std::chrono::seconds(20));

}  // namespace Vx::Tests
