#pragma once

#include <cstdint>
#include <string>
#include <vector>

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
  std::vector<std::string> scenarios;
  std::vector<std::string> definitions;
  std::vector<std::uint32_t> power;
  std::vector<std::uint32_t> sessions;
  int seconds = 5;
  bool general = false;
  bool json = false;
  bool global = false;
};

}  // namespace Vx::Host
