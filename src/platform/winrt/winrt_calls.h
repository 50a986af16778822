#pragma once

#include <string_view>

#include "platform/clock.h"
#include "platform/unique_handle.h"
#include "platform/windows_runtime_error.h"
#include "platform/winrt/winrt_owners.h"

// An error's message names the failed call, because the code alone does not identify the step.

namespace Vx::Platform {

inline void Check(HRESULT result, const wchar_t* call) {
  if (FAILED(result)) throw WindowsRuntimeError(result, call);
}

// For calls that can succeed without returning an object. Reports that as E_UNEXPECTED.
template <typename T>
void CheckMade(HRESULT result, const Abi::ComPtr<T>& object, const wchar_t* call) {
  Check(result, call);
  if (!object) throw WindowsRuntimeError(E_UNEXPECTED, call);
}

// Enters the multithreaded apartment for a scope. Throws on failure.
struct ApartmentScope : Abi::Apartment {
  ApartmentScope() { Check(Result(), L"RoInitialize"); }
};

Abi::HString MakeString(std::wstring_view text);

// Creates an object with the class's default constructor and returns its interface T.
template <typename T>
Abi::ComPtr<T> Activate(const wchar_t* className) {
  Abi::ComPtr<IInspectable> made;
  CheckMade(RoActivateInstance(MakeString(className).Get(), made.Receive()), made, className);
  Abi::ComPtr<T> object;
  CheckMade(Abi::Query(made, object), object, className);
  return object;
}

// Returns the interface with a class's static members.
template <typename T>
Abi::ComPtr<T> FactoryOf(const wchar_t* className) {
  Abi::ComPtr<T> factory;
  CheckMade(RoGetActivationFactory(MakeString(className).Get(), Abi::IidOf<T>(),
                                   reinterpret_cast<void**>(factory.Receive())),
            factory, className);
  return factory;
}

struct AsyncOutcome {
  bool ended = false;          // false: canceled, because the wait timed out or failed
  HRESULT result = E_PENDING;  // S_OK, the operation's own error, or the error of the wait
};

namespace Detail {

AsyncOutcome AwaitCompletion(Abi::IAsyncInfo& operation, RawHandle completed,
                             Clock::Duration limit);

}  // namespace Detail

// Waits, through the clock, until `operation` completes. After `limit`, cancels the operation and
// returns HRESULT_FROM_WIN32(ERROR_TIMEOUT). If it cannot be canceled, it may continue to run.
// Throws if the completion handler cannot be set or the status cannot be read.
template <typename Operation>
AsyncOutcome Await(const Abi::ComPtr<Operation>& operation, Clock::Duration limit) {
  using Handler = typename Operation::Handler;
  Abi::ComPtr<Abi::IAsyncInfo> info;
  Check(Abi::Query(operation, info), L"IAsyncInfo");
  // Shared with the handler, which the system may still call after the wait has ended.
  const SharedHandle completed(UniqueHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr)));
  if (!completed) throw WindowsRuntimeError(HRESULT_FROM_WIN32(GetLastError()), L"CreateEvent");
  const auto handler = Abi::MakeDelegate<Handler>(
      [completed](typename Handler::Sender, typename Handler::Argument) noexcept -> HRESULT {
        SetEvent(completed.get());
        return S_OK;
      });
  Check(operation->put_Completed(handler.Get()), L"put_Completed");
  return Detail::AwaitCompletion(*info.Get(), completed.get(), limit);
}

}  // namespace Vx::Platform
