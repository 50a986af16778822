#include "platform/winrt/winrt_calls.h"

#include "platform/machine.h"

#include <windows.h>

namespace Vx::Platform {

Abi::HString MakeString(std::wstring_view text) {
  Abi::HString result;
  const auto length = static_cast<std::uint32_t>(text.size());
  Check(WindowsCreateString(text.data(), length, result.Receive()), L"WindowsCreateString");
  return result;
}

namespace Detail {

AsyncOutcome AwaitCompletion(Abi::IAsyncInfo& operation, RawHandle completed,
                             Clock::Duration limit) {
  const WaitResult wait = CurrentMachine().clock->Wait(completed, limit);
  if (wait.outcome != WaitOutcome::Signalled) {
    operation.Cancel();
    const DWORD error = wait.outcome == WaitOutcome::TimedOut ? ERROR_TIMEOUT : wait.lastError;
    return {.ended = false, .result = HRESULT_FROM_WIN32(error)};
  }
  Abi::AsyncStatus status = Abi::AsyncStatus::Error;
  Check(operation.get_Status(&status), L"IAsyncInfo::get_Status");
  if (status == Abi::AsyncStatus::Completed) return {.ended = true, .result = S_OK};
  HRESULT code = S_OK;
  Check(operation.get_ErrorCode(&code), L"IAsyncInfo::get_ErrorCode");
  if (SUCCEEDED(code)) {
    code = status == Abi::AsyncStatus::Canceled ? HRESULT_FROM_WIN32(ERROR_CANCELLED) : E_FAIL;
  }
  return {.ended = true, .result = code};
}

}  // namespace Detail

}  // namespace Vx::Platform
