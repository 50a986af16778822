#pragma once

#include <cstdint>
#include <utility>

struct IUnknown;
struct IWbemLocator;
struct tagSAFEARRAY;

namespace Vx::Platform {

// As whom a proxy calls another process by default: as this process, or as the user that the
// calling thread acts as at each call, if it does.
enum class Cloaking { None, Dynamic };

// Entering COM, its steps that lead to the firmware's WMI namespace, and the values that are passed
// to it. After these, code calls the interfaces themselves. Every function without another result
// returns the HRESULT of its call. One thread at a time.
class Com {
 public:
  virtual ~Com() = default;

  virtual std::int32_t InitializeMultithreaded() = 0;
  virtual void Uninitialize() = 0;

  // Process-wide security with default authentication and impersonation level "impersonate". COM
  // must be initialised on the thread. Only the first call of a process succeeds.
  virtual std::int32_t InitializeSecurity(Cloaking cloaking) = 0;

  // `locator` receives a reference that the caller releases.
  virtual std::int32_t CreateWbemLocator(IWbemLocator** locator) = 0;

  // Call-level authentication (WinNT, no authorisation, impersonate) on a proxy.
  virtual std::int32_t SetProxyBlanket(IUnknown* proxy) = 0;

  // Returns a BSTR with a copy of `text`, owned by the caller (see com_owners.h), or null without
  // memory.
  virtual wchar_t* MakeText(const wchar_t* text) = 0;

  // Returns an array of `count` zero bytes from index 0, owned by the caller, or null without
  // memory.
  virtual tagSAFEARRAY* MakeByteArray(std::uint32_t count) = 0;
  virtual std::int32_t PutByte(tagSAFEARRAY* bytes, std::int32_t index, std::uint8_t value) = 0;
};

// Owns one reference to a COM object. A copy owns another. The interface may be incomplete where
// the owner is only declared.
template <typename Interface>
class ComPtr {
 public:
  ComPtr() = default;

  // Takes over the caller's reference.
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

  // Returns where a call may store a new reference, after releasing the current one.
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
