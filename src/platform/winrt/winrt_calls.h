#pragma once

#include <string_view>

#include "platform/clock.h"
#include "platform/unique_handle.h"
#include "platform/windows_runtime_error.h"
#include "platform/winrt/winrt_owners.h"

// Windows Runtime calls with failures as WindowsRuntimeError. The message names the call, because
// the code alone does not say which of several steps failed.

namespace Vx::Platform {

inline void Check(HRESULT result, const wchar_t* call) {
  if (FAILED(result)) throw WindowsRuntimeError(result, call);
}

// For calls that can return success without an object, which then counts as E_UNEXPECTED.
template <typename T>
void CheckMade(HRESULT result, const Abi::ComPtr<T>& object, const wchar_t* call) {
  Check(result, call);
  if (!object) throw WindowsRuntimeError(E_UNEXPECTED, call);
}

// Enters the multithreaded apartment for a scope. Throws if the thread may not.
class ApartmentScope {
 public:
  ApartmentScope() { Check(apartment.Result(), L"RoInitialize"); }

 private:
  Abi::Apartment apartment;
};

Abi::HString MakeString(std::wstring_view text);

// Creates an object of a class that needs no arguments and returns its interface T.
template <typename T>
Abi::ComPtr<T> Activate(const wchar_t* className) {
  Abi::ComPtr<IInspectable> made;
  const HRESULT activated = RoActivateInstance(MakeString(className).Get(), made.Receive());
  CheckMade(activated, made, className);
  Abi::ComPtr<T> object;
  const HRESULT queried = Abi::Query(made, object);
  CheckMade(queried, object, className);
  return object;
}

// The static members of a class.
template <typename T>
Abi::ComPtr<T> FactoryOf(const wchar_t* className) {
  Abi::ComPtr<T> factory;
  const HRESULT found = RoGetActivationFactory(MakeString(className).Get(), Abi::IidOf<T>(),
                                               reinterpret_cast<void**>(factory.Receive()));
  CheckMade(found, factory, className);
  return factory;
}

struct AsyncOutcome {
  bool ended = false;          // false: the operation was cancelled because it took too long
  HRESULT result = E_PENDING;  // S_OK, the operation's own error, or the error of the wait
};

namespace Detail {

SharedHandle MakeCompletionEvent();
AsyncOutcome AwaitCompletion(Abi::IAsyncInfo& operation, RawHandle completed,
                             Clock::Duration limit);

}  // namespace Detail

// Blocks, through the clock, until `operation` ends. An operation that has not ended after `limit`
// is cancelled, and the result is HRESULT_FROM_WIN32(ERROR_TIMEOUT); it may run on if it cannot be
// cancelled. Throws when the operation refuses its completion handler.
template <typename Operation>
AsyncOutcome Await(const Abi::ComPtr<Operation>& operation, Clock::Duration limit) {
  using Handler = typename Operation::Handler;
  Abi::ComPtr<Abi::IAsyncInfo> info;
  Check(Abi::Query(operation, info), L"IAsyncInfo");
  // Shared with the handler, because the system may still call it after the wait has ended.
  const SharedHandle completed = Detail::MakeCompletionEvent();
  const auto handler = Abi::MakeDelegate<Handler>(
      [completed](typename Handler::Sender, typename Handler::Argument) noexcept -> HRESULT {
        SetEvent(completed.get());
        return S_OK;
      });
  Check(operation->put_Completed(handler.Get()), L"put_Completed");
  return Detail::AwaitCompletion(*info.Get(), completed.get(), limit);
}

}  // namespace Vx::Platform
