#pragma once

#include <utility>

#include "exemption/client_information.h"

namespace Vx::Tessel::Security {

// How a checker compares a row of a white list. The version checkers ignore it.
struct MatchingDescriptor {
  enum class Operation {
    regex,
    contained_in_list,
    begins_with_from_list,
    begins_with_from_list_with_env_vars,
    numeric_range,
    none
  };

  explicit MatchingDescriptor(Operation how) : operation(how) {}

  Operation operation;
};

struct UwpMatchingDescriptor : MatchingDescriptor {
  UwpMatchingDescriptor(Server::Uwp::UwpInformation client, Operation how)
      : MatchingDescriptor(how), information(std::move(client)) {}

  Server::Uwp::UwpInformation information;
};

struct Win32MatchingDescriptor : MatchingDescriptor {
  Win32MatchingDescriptor(Server::Win32::Win32Information client, Operation how)
      : MatchingDescriptor(how), information(std::move(client)) {}

  Server::Win32::Win32Information information;
};

}  // namespace Vx::Tessel::Security
