#pragma once

#include <cstddef>
#include <cstdint>

#include "host/vx_service.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The most characters of a caller identity, without the terminator.
inline constexpr std::size_t kMaxClientIdLength = 64;

// Creates the record that carries a caller's identity (null counts as empty) and returns 0. Does
// nothing for a null `context`. An identity that is too long breaks the host's contract and ends
// the process, because a shortened one could be mistaken for another client's. Returns 0x20000002
// and a null record when memory runs out.
std::uint32_t MakeClientContext(const wchar_t* clientId, ClientContext** context) noexcept;

// Frees the record and its text. Nulls are allowed. Returns 0.
std::uint32_t FreeClientContext(ClientContext** context) noexcept;

// Ends the process when `clientId` is longer than a caller identity can be.
void RequireClientId(const wchar_t* clientId) noexcept;

// Logs `what` as an error and ends the process, because the host or a component broke a contract
// beyond repair.
[[noreturn]] void FailContract(const wchar_t* what) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
