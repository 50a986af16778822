#pragma once

#include <utility>

namespace Vx::Platform {

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
