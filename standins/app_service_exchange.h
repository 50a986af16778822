#pragma once

#include <chrono>
#include <string>
#include <utility>

namespace Vx::Tessel::Server::TesselCommunication {

// Status of an exchange that failed on the way: an HRESULT, negative (REGDB_E_CLASSNOTREG where
// this Windows has no app services). A refused connection answers the AppServiceConnectionStatus of
// Windows, a refused message this base plus the AppServiceResponseStatus.
inline constexpr int kResponseStatusBase = 0x1000;

// The names of the one text in a message and in its reply.
inline constexpr wchar_t kMessageKey[] = L"message";
inline constexpr wchar_t kReplyKey[] = L"response";

// Opens a connection to the app service, sends `text`, waits for the reply and closes the
// connection. Answers 0 and the reply's text (empty when it carries none), or a status of the above
// and no text. Blocks for at most `limit` while opening and again while waiting for the reply.
std::pair<int, std::wstring> ExchangeWithAppService(const std::wstring& packageFamilyName,
                                                    const std::wstring& appServiceName,
                                                    const std::wstring& text,
                                                    std::chrono::milliseconds limit);

}  // namespace Vx::Tessel::Server::TesselCommunication
