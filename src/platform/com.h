#pragma once

#include <cstdint>
#include <utility>

struct IUnknown;
struct IWbemLocator;
struct tagSAFEARRAY;

namespace Vx::Platform {

// The identity with which a proxy calls another process by default: this process's, or at each call
// that of the user whom the calling thread impersonates.
enum class Cloaking { None, Dynamic };

// COM as far as the firmware's WMI namespace, and the values that are passed to it. From there,
// code calls the interfaces directly. Functions that return an std::int32_t return their call's
// HRESULT. One thread at a time.
class Com {
 public:
  virtual ~Com() = default;

  virtual std::int32_t InitializeMultithreaded() = 0;
  virtual void Uninitialize() = 0;

  // Sets process-wide security: default authentication, impersonation level "impersonate". COM must
  // be initialised on the thread. Only a process's first call succeeds.
  virtual std::int32_t InitializeSecurity(Cloaking cloaking) = 0;

  // `locator` receives a reference that the caller releases.
  virtual std::int32_t CreateWbemLocator(IWbemLocator** locator) = 0;

  // Sets call-level authentication (WinNT, no authorisation, impersonate) on a proxy.
  virtual std::int32_t SetProxyBlanket(IUnknown* proxy) = 0;

  // Returns a BSTR, owned by the caller (see com_owners.h), or null if out of memory.
  virtual wchar_t* MakeText(const wchar_t* text) = 0;

  // Returns `count` zero bytes from index 0, owned by the caller, or null if out of memory.
  virtual tagSAFEARRAY* MakeByteArray(std::uint32_t count) = 0;
  virtual std::int32_t PutByte(tagSAFEARRAY* bytes, std::int32_t index, std::uint8_t value) = 0;
};

// Owns one reference to a COM object. The interface may be incomplete in mere declarations.
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

  // Returns where a call may store a new reference. Releases the current one.
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
