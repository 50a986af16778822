#include <string_view>

#include "launch/registration_helper.h"

namespace Vx::Tessel::Server::Services::Orvane {

RegistrationHelper::RegistrationState RegistrationHelper::MapValueToState(std::string_view value) {
  static constexpr struct {
    std::string_view text;
    RegistrationState state;
  } kStates[] = {
      {"yes", RegistrationState::Yes},
      {"no", RegistrationState::No},
      {"skipped_uwp", RegistrationState::No},
      {"skipped_oobe", RegistrationState::SkippedOobe},
      {"pending_oobe", RegistrationState::Pending},
      {"pending_uwp", RegistrationState::Pending},
  };
  for (const auto& entry : kStates) {
    if (entry.text == value) return entry.state;
  }
  return RegistrationState::Unknown;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
