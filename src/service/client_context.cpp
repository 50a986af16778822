#include "service/client_context.h"

#include <cwchar>
#include <memory>
#include <new>

#include "host/logging.h"
#include "platform/runtime/fail_fast.h"
#include "service/result_codes.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kContractBroken[] = L"OrvaneService: contract broken, ending the process: %s";
constexpr wchar_t kClientIdTooLong[] = L"the caller identity has more than 64 characters";

std::size_t BoundedLength(const wchar_t* clientId) noexcept {
  const std::size_t length = wcsnlen(clientId, kMaxClientIdLength + 1);
  if (length > kMaxClientIdLength) FailContract(kClientIdTooLong);
  return length;
}

}  // namespace

std::uint32_t MakeClientContext(const wchar_t* clientId, ClientContext** context) noexcept {
  if (context == nullptr) return kSuccess;
  *context = nullptr;
  const std::size_t length = clientId == nullptr ? 0 : BoundedLength(clientId);
  std::unique_ptr<wchar_t[]> text(new (std::nothrow) wchar_t[length + 1]);
  std::unique_ptr<ClientContext> record(new (std::nothrow) ClientContext{});
  if (text == nullptr || record == nullptr) return kFailed;
  if (length != 0) std::wmemcpy(text.get(), clientId, length);
  text[length] = L'\0';
  record->clientId = text.release();
  *context = record.release();
  return kSuccess;
}

std::uint32_t FreeClientContext(ClientContext** context) noexcept {
  if (context == nullptr || *context == nullptr) return kSuccess;
  delete[](*context)->clientId;
  delete *context;
  return kSuccess;
}

void RequireClientId(const wchar_t* clientId) noexcept {
  if (clientId != nullptr) BoundedLength(clientId);
}

void FailContract(const wchar_t* what) noexcept {
  Logging::LogManager::GetLogger()->LogError(kContractBroken, what);
  Platform::FailFast();
}

}  // namespace Vx::Tessel::Server::Services::Orvane
