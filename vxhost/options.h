#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Vx::Host {

// The exit codes of the process.
enum ExitCode : int { kDone = 0, kNotMet = 1, kUnusable = 2 };

// The parsed command line.
struct Options {
  // exec, scenario and events
  std::string dll;
  bool privateStore = false;
  bool simulate = false;

  // exec, and validate for the request
  std::uint32_t id = 0;
  std::string request = "{}";
  std::string caller = "vxhost";

  // scenario
  std::vector<std::string> scenarios;
  std::vector<std::string> definitions;

  // events
  std::vector<std::uint32_t> power;
  std::vector<std::uint32_t> sessions;

  // events and watch
  int seconds = 5;

  // trust and pin
  std::string file;
  bool general = false;

  // watch
  bool json = false;
  bool global = false;
};

}  // namespace Vx::Host
