#pragma once

#include <cstddef>
#include <cstdint>

#include "host/vx_service.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The longest caller identity, in characters without the terminator.
inline constexpr std::size_t kMaxClientIdLength = 64;

// Creates the record for a caller's identity (null means empty) and returns 0. If out of memory,
// returns 0x20000002 and a null record. Ignores a null `context`. An identity that is too long
// terminates the process, because a truncated one could match another client's.
std::uint32_t MakeClientContext(const wchar_t* clientId, ClientContext** context) noexcept;

// Frees the record and its string. Accepts nulls. Returns 0.
std::uint32_t FreeClientContext(ClientContext** context) noexcept;

// Terminates the process if `clientId` is longer than kMaxClientIdLength.
void RequireClientId(const wchar_t* clientId) noexcept;

// Logs `what` and terminates the process, because the host or a component broke its contract.
[[noreturn]] void FailContract(const wchar_t* what) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
