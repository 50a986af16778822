#pragma once

#include <string>
#include <string_view>

namespace Vx::Tessel::Server::Records {

// Returns a short name for a subscription, for log lines and tables: 8 hexadecimal digits that
// depend only on its text, ignoring white space between tokens. It helps readers tell subscriptions
// apart. It is not a security measure. A text that is not a JSON object is hashed unchanged.
std::wstring SubscriptionHash(std::wstring_view request);

}  // namespace Vx::Tessel::Server::Records
