#pragma once

#include <cstdint>
#include <utility>

struct IUnknown;
struct IWbemLocator;
struct tagSAFEARRAY;

namespace Vx::Platform {

// The steps of COM that lead to the firmware's WMI namespace, and the values that are handed to it;
// what follows are calls on the interfaces themselves. Every answer is the call's HRESULT. Called
// on one thread at a time.
class Com {
 public:
  virtual ~Com() = default;

  virtual std::int32_t InitializeMultithreaded() = 0;
  virtual void Uninitialize() = 0;

  // Process-wide security with default authentication and impersonation level "impersonate".
  virtual std::int32_t InitializeSecurity() = 0;

  // `locator` receives a reference that the caller releases.
  virtual std::int32_t CreateWbemLocator(IWbemLocator** locator) = 0;

  // Call-level authentication (WinNT, no authorisation, impersonate) on a proxy.
  virtual std::int32_t SetProxyBlanket(IUnknown* proxy) = 0;

  // A BSTR with a copy of `text`, owned by the caller (see com_owners.h); null when memory is out.
  virtual wchar_t* MakeText(const wchar_t* text) = 0;

  // An array of `count` zero bytes from index 0, owned by the caller; null when memory is out.
  virtual tagSAFEARRAY* MakeByteArray(std::uint32_t count) = 0;
  virtual std::int32_t PutByte(tagSAFEARRAY* bytes, std::int32_t index, std::uint8_t value) = 0;
};

// Owns one reference to a COM object; a copy owns another. The interface may be incomplete where
// the owner is only declared.
template <typename Interface>
class ComPtr {
 public:
  ComPtr() = default;

  // Takes over the reference that `owned` stands for.
  explicit ComPtr(Interface* owned) noexcept : object(owned) {}
  ComPtr(const ComPtr& other) noexcept : object(other.object) {
    if (object != nullptr) object->AddRef();
  }
  ComPtr(ComPtr&& other) noexcept : object(std::exchange(other.object, nullptr)) {}
  ComPtr& operator=(ComPtr other) noexcept {
    std::swap(object, other.object);
    return *this;
  }
  ~ComPtr() { Reset(); }

  // Where a call puts the reference that it hands out; what was held is released first.
  Interface** Receive() noexcept {
    Reset();
    return &object;
  }

  void Reset() noexcept {
    if (object != nullptr) std::exchange(object, nullptr)->Release();
  }

  Interface* Get() const noexcept { return object; }
  Interface* operator->() const noexcept { return object; }
  explicit operator bool() const noexcept { return object != nullptr; }

 private:
  Interface* object = nullptr;
};

}  // namespace Vx::Platform
