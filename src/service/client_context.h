#pragma once

#include <cstddef>
#include <cstdint>

#include "host/vx_service.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Characters of a caller identity, the terminator not counted.
inline constexpr std::size_t kMaxClientIdLength = 64;

// Makes the record that carries a caller's identity (null counts as empty) and answers 0; nothing
// happens for a null `context`. An identity that is too long breaks the host's contract and ends
// the process: a shortened one could be mistaken for somebody else's. Out of memory answers
// 0x20000002 and a null record.
std::uint32_t MakeClientContext(const wchar_t* clientId, ClientContext** context) noexcept;

// Frees the record and its text; nulls are allowed. Answers 0.
std::uint32_t FreeClientContext(ClientContext** context) noexcept;

// Ends the process when `clientId` is longer than a caller identity can be.
void RequireClientId(const wchar_t* clientId) noexcept;

// Ends the process because the host or a component broke a contract that nothing can be saved
// after. Writes `what` as an error line first.
[[noreturn]] void FailContract(const wchar_t* what) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
