#pragma once

#include <cstddef>
#include <cstdint>

#include "host/completion_callback.h"
#include "host/vx_service.h"
#include "storage/request_list.h"

namespace Vx::Tessel::Server::Services::Orvane {

class OrvaneService;

// In characters. Many times the size of any real request. Limits how much one call can allocate.
inline constexpr std::size_t kMaxRequestLength = Storage::kMaxStoredRequest;

// Returns a command's display name, or null for an unsupported one.
const wchar_t* CommandName(std::uint32_t id) noexcept;

// Executes one command for slot 3 and returns its result code. Thread-safe: each call has its own
// documents.
//
// Checks, in this order: session API set, context, request and response pointers (a failure of
// these leaves `*response` unchanged), request JSON (a failure sets `*response` to null). After the
// checks, `*response` receives the response, which is "{}" if a handler failed, or null if out of
// memory. An exception from a handler is logged and becomes a result code. `callback` is never
// called, and is destroyed last on every path.
//
// If a command is refused or fails, logs one error with the function id, the key and the reason.
// If it succeeds despite an unusable key, logs the same as a warning. Writes a record in all these
// cases and for every command that changes something. The handler names the change in the record.
std::uint32_t Dispatch(OrvaneService& service, const ClientContext* context,
                       std::uint32_t functionId, const wchar_t* request, wchar_t** response,
                       CompletionCallback* callback) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
