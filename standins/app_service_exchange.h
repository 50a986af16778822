#pragma once

#include <chrono>
#include <string>
#include <utility>

namespace Vx::Tessel::Server::TesselCommunication {

// The status of a failed exchange is an HRESULT, which is negative (REGDB_E_CLASSNOTREG where this
// Windows has no app services). For a refused connection it is Windows' AppServiceConnectionStatus,
// for a refused message this base plus Windows' AppServiceResponseStatus.
inline constexpr int kResponseStatusBase = 0x1000;

// The key of the one text in a message, and in its reply.
inline constexpr wchar_t kMessageKey[] = L"message";
inline constexpr wchar_t kReplyKey[] = L"response";

// Opens a connection to the app service, sends `text`, waits for the reply and closes the
// connection. Returns 0 and the text of the reply, which is empty if the reply has none, or a
// status as above without a text. Blocks for at most `limit` while opening and again while waiting
// for the reply.
std::pair<int, std::wstring> ExchangeWithAppService(const std::wstring& packageFamilyName,
                                                    const std::wstring& appServiceName,
                                                    const std::wstring& text,
                                                    std::chrono::milliseconds limit);

}  // namespace Vx::Tessel::Server::TesselCommunication
