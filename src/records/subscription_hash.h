#pragma once

#include <string>
#include <string_view>

namespace Vx::Tessel::Server::Records {

// A short name of a subscription for log lines and tables: 8 hexadecimal digits that depend on the
// text alone, white space between its tokens aside. It distinguishes subscriptions for a reader and
// protects against nothing. A text that is not a JSON object counts as it is.
std::wstring SubscriptionHash(std::wstring_view request);

}  // namespace Vx::Tessel::Server::Records
