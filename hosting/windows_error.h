#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Vx::Hosting {

// An error that Windows reported. The message contains its number. Windows' text for the number
// depends on the machine's language, so it is shown only to people, never to programs.
class WindowsError : public std::runtime_error {
 public:
  // The message is "WHAT (error N)", followed by `advice`.
  WindowsError(const std::string& what, std::uint32_t error, const std::string& advice = {})
      : std::runtime_error(what + " (error " + std::to_string(error) + ")" + advice), code(error) {}

  std::uint32_t Code() const { return code; }

 private:
  std::uint32_t code;
};

}  // namespace Vx::Hosting
