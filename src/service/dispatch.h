#pragma once

#include <cstddef>
#include <cstdint>

#include "host/completion_callback.h"
#include "host/vx_service.h"
#include "storage/request_list.h"

namespace Vx::Tessel::Server::Services::Orvane {

class OrvaneService;

// In characters. Many times the size of any real request. Limits what one call can allocate.
inline constexpr std::size_t kMaxRequestLength = Storage::kMaxStoredRequest;

// Returns a command's display name, or null for an unsupported one.
const wchar_t* CommandName(std::uint32_t id) noexcept;

// Executes one command for slot 3 and returns its result code. Thread-safe: each call has its own
// documents.
//
// Checks, in this order: session API set (a failure leaves `response` alone), context, request and
// response pointers, request JSON (a failure sets `*response` to null). After the checks,
// `*response` receives the response, which is "{}" if a handler failed. An exception from a handler
// is logged and becomes a result code. `callback` is never called, and is destroyed last on every
// path.
//
// A refused command leaves one error line with the function id, the key and the reason. A command
// that succeeds despite an unusable key leaves such a line as a warning. Both, and every command
// that changes something, leave a record, in which the handler names the change.
// the handler names the change.
std::uint32_t Dispatch(OrvaneService& service, const ClientContext* context,
                       std::uint32_t functionId, const wchar_t* request, wchar_t** response,
                       CompletionCallback* callback) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
