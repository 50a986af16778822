#pragma once

#include <cstdint>
#include <utility>

struct IUnknown;
struct IWbemLocator;
struct tagSAFEARRAY;

namespace Vx::Platform {

// The identity that a proxy uses by default when it calls another process: this process's (None),
// or that of the user whom the calling thread impersonates at each call (Dynamic).
enum class Cloaking { None, Dynamic };

// The COM functions that are needed to reach the firmware's WMI namespace and to create the values
// passed to it. Otherwise, code calls the interfaces directly. Functions that return std::int32_t
// return the HRESULT of the COM call. Use from one thread at a time.
class Com {
 public:
  virtual ~Com() = default;

  virtual std::int32_t InitializeMultithreaded() = 0;
  virtual void Uninitialize() = 0;

  // Sets process-wide security: default authentication, impersonation level "impersonate". COM must
  // be initialized on the thread. Succeeds only once per process.
  virtual std::int32_t InitializeSecurity(Cloaking cloaking) = 0;

  // `locator` receives a reference that the caller releases.
  virtual std::int32_t CreateWbemLocator(IWbemLocator** locator) = 0;

  // Sets call-level authentication (WinNT, no authorization, impersonate) on a proxy.
  virtual std::int32_t SetProxyBlanket(IUnknown* proxy) = 0;

  // Returns a BSTR, owned by the caller (see com_owners.h), or null if out of memory.
  virtual wchar_t* MakeText(const wchar_t* text) = 0;

  // Returns `count` zero bytes with indexes from 0, owned by the caller, or null if out of memory.
  virtual tagSAFEARRAY* MakeByteArray(std::uint32_t count) = 0;
  virtual std::int32_t PutByte(tagSAFEARRAY* bytes, std::int32_t index, std::uint8_t value) = 0;
};

// Owns one reference to a COM object. May be declared for an incomplete interface.
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

  // Releases the current reference and returns where a call may store a new one.
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
