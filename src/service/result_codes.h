#pragma once

#include <cstdint>

namespace Vx::Tessel::Server::Services::Orvane {

// Result codes of commands. Command 7 may also return the HRESULT of a Windows Runtime error.
inline constexpr std::uint32_t kSuccess = 0;
inline constexpr std::uint32_t kUnsupportedFunction = 0x20000001;
inline constexpr std::uint32_t kFailed = 0x20000002;  // null argument, failed handler or allocation
inline constexpr std::uint32_t kInvalidRequest = 0x20000003;
inline constexpr std::uint32_t kStandardException = 0x20000008;
inline constexpr std::uint32_t kRuntimeError = 0x20000009;
inline constexpr std::uint32_t kNoSessionApiSet = 0x2000000A;

}  // namespace Vx::Tessel::Server::Services::Orvane
