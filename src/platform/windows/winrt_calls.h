#pragma once

#include <string_view>

#include "platform/windows_runtime_error.h"
#include "platform/winrt/winrt_owners.h"

// The Windows Runtime calls of this folder, with failures as WindowsRuntimeError. The message
// names the call, for the code alone does not tell which of several steps refused.

namespace Vx::Platform {

inline void Check(HRESULT result, const wchar_t* call) {
  if (FAILED(result)) throw WindowsRuntimeError(result, call);
}

// Enters the multithreaded apartment for a scope; throws when the thread may not.
class ApartmentScope {
 public:
  ApartmentScope() { Check(apartment.Result(), L"RoInitialize"); }

 private:
  Abi::Apartment apartment;
};

inline Abi::HString MakeString(std::wstring_view text) {
  Abi::HString result;
  Check(result.Assign(text), L"WindowsCreateString");
  return result;
}

// For calls that can answer success with nothing, which then counts as a broken promise.
template <typename T>
void CheckMade(HRESULT result, const Abi::ComPtr<T>& object, const wchar_t* call) {
  Check(result, call);
  if (!object) throw WindowsRuntimeError(E_UNEXPECTED, call);
}

template <typename T>
Abi::ComPtr<T> ActivateClass(const wchar_t* className) {
  Abi::ComPtr<T> object;
  const HRESULT result = Abi::Activate(className, object);
  CheckMade(result, object, className);
  return object;
}

template <typename T>
Abi::ComPtr<T> FactoryOf(const wchar_t* className) {
  Abi::ComPtr<T> factory;
  const HRESULT result = Abi::GetFactory(className, factory);
  CheckMade(result, factory, className);
  return factory;
}

}  // namespace Vx::Platform
