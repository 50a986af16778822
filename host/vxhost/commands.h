#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/vxhost/console.h"

namespace Vx::Host {

// What the process exits with.
enum ExitCode : int { kDone = 0, kNotMet = 1, kUnusable = 2 };

// The command line, taken apart.
struct Options {
  std::string dll;
  bool privateStore = false;
  bool simulate = false;
  std::uint32_t id = 0;
  std::string request = "{}";
  std::string caller = "vxhost";
  std::string file;
  std::vector<std::string> definitions;
  std::vector<std::uint32_t> power;
  std::vector<std::uint32_t> sessions;
  int seconds = 5;
  bool general = false;
  bool json = false;
  bool global = false;
};

// One function a subcommand; each answers an ExitCode. They throw std::exception for what the user
// has to put right: the module, a file, a text.
int Exec(const Options& options, Console& console);
int Scenario(const Options& options, Console& console);
int Events(const Options& options, Console& console);
int ShowStore(const Options& options, Console& console);
int ShowSubscriptions(const Options& options, Console& console);
int Trust(const Options& options, Console& console);
int Pin(const Options& options, Console& console);
int Watch(const Options& options, Console& console);
int Validate(const Options& options, Console& console);
int ExplainResume(const Options& options, Console& console);

// `path` made full against the working directory.
std::wstring FullPath(const std::string& path);

// The same of a file that has to exist. Throws std::runtime_error.
std::wstring FullPathOfFile(const std::string& path);

// A text given as it is, or as @FILE.
std::wstring TextOrFile(const std::string& argument);

}  // namespace Vx::Host
