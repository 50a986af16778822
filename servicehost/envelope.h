#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "hosting/loaded_module.h"

namespace Vx::Hosting::ServiceHost {

// The messages on the service's pipe: one JSON object in UTF-8 per message.
//
// `request` and `response` are JSON strings whose values pass through unchanged, because the module
// compares them exactly. An unpaired surrogate, which no valid request contains, is written as
// U+FFFD and is rejected in incoming messages.

// Size limits in bytes. A longer message closes the connection.
inline constexpr std::size_t kLongestCommand = std::size_t{1} << 20;
inline constexpr std::size_t kLongestResult = std::size_t{64} << 20;

// A command from a client: {"id": 9, "request": "..."}.
struct CommandEnvelope {
  std::uint32_t id = 0;
  std::wstring request;  // never contains U+0000, because the module takes null-terminated strings
};

// Parse a message. Return nothing unless it is a JSON object with one unsigned 32-bit integer and
// one string, in any order. In a result, the string may be missing and other members are allowed.
std::optional<CommandEnvelope> ParseCommand(std::string_view message);
std::optional<CommandResult> ParseResult(std::string_view message);

std::string WriteCommand(const CommandEnvelope& command);

// Formats a result: {"code": 0, "response": "...", "record": {"decision": "refused", "reason":
// "already_stored"}}. Omits the response or the record if there is none.
std::string WriteResult(const CommandResult& result);

}  // namespace Vx::Hosting::ServiceHost
