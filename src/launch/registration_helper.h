#pragma once

#include <cstdint>
#include <string_view>

#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// What the owner did about registering the product, as another service of the host left it in the
// shared store. Only read here. Keeps nothing between calls; any thread.
class RegistrationHelper {
 public:
  enum class RegistrationState : std::int32_t {
    Yes = 0,
    No = 1,
    SkippedOobe = 2,
    Pending = 3,
    Unknown = 99,
  };

  RegistrationHelper();

  // Unknown also when the store cannot be read. Throws nothing.
  RegistrationState GetRegistrationState() const;

  // The state that a stored text stands for; case and blanks count.
  static RegistrationState MapValueToState(std::string_view value);

 private:
  const Logging::TraceLogger* logger;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
