#pragma once

#include <chrono>
#include <string>
#include <utility>

namespace Vx::Tessel::Server::TesselCommunication {

// The status of a failed exchange: a negative HRESULT (REGDB_E_CLASSNOTREG if this Windows has no
// app services), Windows' AppServiceConnectionStatus for a refused connection, or this base plus
// Windows' AppServiceResponseStatus for a refused message.
inline constexpr int kResponseStatusBase = 0x1000;

// The keys of the only string in a message and in its reply.
inline constexpr wchar_t kMessageKey[] = L"message";
inline constexpr wchar_t kReplyKey[] = L"response";

// Opens a connection to the app service, sends `text`, waits for the reply and closes the
// connection. Returns 0 and the reply's text, if any, or a failure status as above. Blocks for at
// most `limit` while opening and again while waiting for the reply.
std::pair<int, std::wstring> ExchangeWithAppService(const std::wstring& packageFamilyName,
                                                    const std::wstring& appServiceName,
                                                    const std::wstring& text,
                                                    std::chrono::milliseconds limit);

}  // namespace Vx::Tessel::Server::TesselCommunication
