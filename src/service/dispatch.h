#pragma once

#include <cstddef>
#include <cstdint>

#include "host/completion_callback.h"
#include "host/vx_service.h"

namespace Vx::Tessel::Server::Services::Orvane {

class OrvaneService;

// The most characters of a request. A longer one is invalid. The bound is many times the size of
// any real request and limits what one call can make the service allocate.
inline constexpr std::size_t kMaxRequestLength = std::size_t{1024} * 1024;

// Returns the name of a command for people, or null for an unsupported one.
const wchar_t* CommandName(std::uint32_t id) noexcept;

// Executes one command for slot 3 and returns its result code. Any thread may call, also several at
// once, because each call has its own documents.
//
// Checks, in this order: session API set (a failure leaves `response` alone), context, request and
// response pointers, request JSON (a failure sets `*response` to null). After the checks
// `*response` holds the response, which is "{}" where a handler failed. An exception that leaves a
// handler is logged and becomes a result code. `callback` is never called, and destroyed last on
// every path.
//
// A refused command, and a request with an unusable key, leave one error line that names the
// function id, the key and the reason. These and a command that changes something leave a record,
// in which the handler names what it changed.
std::uint32_t Dispatch(OrvaneService& service, const ClientContext* context,
                       std::uint32_t functionId, const wchar_t* request, wchar_t** response,
                       CompletionCallback* callback) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
