#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Vx::Host {

// The messages of the service's pipe: one JSON object in UTF-8 per message.
//
// `request` and `response` are JSON strings that hold the texts unchanged. The texts are compared
// exactly by the module, so the envelope never parses or rewrites them. An unpaired
// surrogate, which no valid request has, is written as U+FFFD, and a message with one is refused.

// The longest messages in bytes. A longer one ends the connection.
inline constexpr std::size_t kLongestCommand = std::size_t{1} << 20;
inline constexpr std::size_t kLongestResult = std::size_t{64} << 20;

// A command of a client: {"id": 9, "request": "..."}.
struct CommandEnvelope {
  std::uint32_t id = 0;
  std::wstring request;  // without U+0000, because the module takes texts that end with one
};

// Its result: {"code": 0, "response": "..."}. `response` is absent when there is no text.
struct ResultEnvelope {
  std::uint32_t code = 0;
  std::optional<std::wstring> response;
};

// Parse a message. Empty unless it is a JSON object with the members of its kind, each once, in any
// order: a whole number of 32 bits and a string. A command has no others; those of a result that
// this version does not know are ignored.
std::optional<CommandEnvelope> ParseCommand(std::string_view message);
std::optional<ResultEnvelope> ParseResult(std::string_view message);

std::string WriteCommand(const CommandEnvelope& command);
std::string WriteResult(const ResultEnvelope& result);

// Appends `text` to `out` as a JSON string in UTF-8, with U+FFFD in place of an unpaired surrogate.
void AppendJsonString(std::string& out, std::wstring_view text);

}  // namespace Vx::Host
