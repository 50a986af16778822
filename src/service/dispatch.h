#pragma once

#include <cstdint>

#include "host/completion_callback.h"
#include "host/vx_service.h"

namespace Vx::Tessel::Server::Services::Orvane {

class OrvaneService;

// Executes one command for slot 3 and answers its result code. Any thread, several at once: each
// call has documents of its own.
//
// The checks come in this order: session API set (`response` is then left alone), context, request
// and response pointers, request JSON (`*response` is then null); after them `*response` holds the
// answer, which is "{}" where a handler failed. Nothing is thrown: an exception that a handler lets
// out is logged and becomes a result. `callback` is destroyed last, on every path, and never
// called.
//
// A command that is refused, and a request with an unusable key, leave one error line that names
// the function id, the key and what was wrong.
std::uint32_t Dispatch(OrvaneService& service, const ClientContext* context,
                       std::uint32_t functionId, const wchar_t* request, wchar_t** response,
                       CompletionCallback* callback) noexcept;

}  // namespace Vx::Tessel::Server::Services::Orvane
