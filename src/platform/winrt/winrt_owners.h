#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>
#include <utility>

#include "platform/com.h"
#include "platform/winrt/winrt_abi.h"

namespace Vx::Abi {

using Platform::ComPtr;

template <typename From, typename To>
HRESULT Query(const ComPtr<From>& object, ComPtr<To>& other) noexcept {
  return object->QueryInterface(IidOf<To>(), reinterpret_cast<void**>(other.Receive()));
}

// Owns a Windows Runtime string. A null HSTRING is the empty string, not an error.
class HString {
 public:
  HString() = default;
  HString(HString&& other) noexcept : handle(std::exchange(other.handle, nullptr)) {}
  HString& operator=(HString&& other) noexcept {
    std::swap(handle, other.handle);
    return *this;
  }
  ~HString() { WindowsDeleteString(handle); }

  HSTRING* Receive() noexcept {
    WindowsDeleteString(std::exchange(handle, nullptr));
    return &handle;
  }

  HSTRING Get() const noexcept { return handle; }

  // Valid until this object changes.
  std::wstring_view View() const noexcept {
    std::uint32_t length = 0;
    const wchar_t* text = WindowsGetStringRawBuffer(handle, &length);
    return {text, length};
  }

 private:
  HSTRING handle = nullptr;
};

// Keeps the calling thread in the multithreaded apartment for the life of this object. A thread in
// another apartment stays there.
class Apartment {
 public:
  Apartment() noexcept : result(RoInitialize(RO_INIT_MULTITHREADED)) {}
  Apartment(const Apartment&) = delete;
  Apartment& operator=(const Apartment&) = delete;
  ~Apartment() {
    if (SUCCEEDED(result)) RoUninitialize();
  }

  // Returns S_OK even if the thread is in another apartment.
  HRESULT Result() const noexcept { return result == RPC_E_CHANGED_MODE ? S_OK : result; }

 private:
  HRESULT result;
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"  // Windows defines the slots of the base

// A delegate that runs `callable(sender, argument)`, which returns an HRESULT and does not throw.
// The system calls it on any thread. It is agile, so calls are not marshaled. The callable is
// destroyed with the last reference, which the system may hold for longer than the creator.
template <typename Interface, typename Callable>
class Delegate final : public Interface {
 public:
  explicit Delegate(Callable body) : callable(std::move(body)) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) noexcept override {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (iid != IidOf<IUnknown>() && iid != IidOf<Interface>() && iid != IidOf<IAgileObject>()) {
      return E_NOINTERFACE;
    }
    AddRef();
    *object = static_cast<Interface*>(this);
    return S_OK;
  }

  ULONG STDMETHODCALLTYPE AddRef() noexcept override {
    return references.fetch_add(1, std::memory_order_relaxed) + 1;
  }

  ULONG STDMETHODCALLTYPE Release() noexcept override {
    const ULONG left = references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete this;
    return left;
  }

  HRESULT STDMETHODCALLTYPE Invoke(typename Interface::Sender sender,
                                   typename Interface::Argument argument) noexcept override {
    return callable(sender, argument);
  }

 private:
  ~Delegate() = default;

  std::atomic<ULONG> references{1};
  Callable callable;
};

#pragma GCC diagnostic pop

// Keeps this module loaded until the process ends. Windows may call or release a delegate after its
// removal, and its thread may still be returning from our code after the last release.
inline void KeepModuleLoaded() noexcept {
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                     reinterpret_cast<const wchar_t*>(&KeepModuleLoaded), &module);
}

// Returns a new delegate with one reference, owned by the caller. Keeps this module loaded.
template <typename Interface, typename Callable>
ComPtr<Interface> MakeDelegate(Callable callable) {
  KeepModuleLoaded();
  return ComPtr<Interface>(new Delegate<Interface, Callable>(std::move(callable)));
}

}  // namespace Vx::Abi
