#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <windows.h>

#include <oleauto.h>

namespace Vx::Platform {

struct BstrFreer {
  void operator()(wchar_t* text) const noexcept;  // SysFreeString
};

using UniqueBstr = std::unique_ptr<wchar_t, BstrFreer>;

struct SafeArrayDestroyer {
  void operator()(SAFEARRAY* array) const noexcept;  // SafeArrayDestroy
};

using UniqueSafeArray = std::unique_ptr<SAFEARRAY, SafeArrayDestroyer>;

// Owns a VARIANT, initially empty, and clears it on destruction.
class Variant {
 public:
  Variant() noexcept = default;
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;
  ~Variant();

  void SetInt32(std::int32_t value) noexcept;

  // Adds a reference.
  void SetObject(IUnknown* object) noexcept;

  // Stores the array as VT_ARRAY | VT_UI1, even if it is null.
  void SetBytes(UniqueSafeArray array) noexcept;

  VARIANT* Get() noexcept { return &content; }
  const VARIANT& operator*() const noexcept { return content; }

  // Clears the current value and returns where a call may store a new one.
  VARIANT* Receive() noexcept;

 private:
  VARIANT content{};  // VT_EMPTY is zero
};

// Accessors for a VARIANT that another program filled. Each returns an empty value (or null) unless
// the content really is of that kind, whatever its type claims.
std::optional<std::int32_t> Int32In(const VARIANT& value) noexcept;
IUnknown* ObjectIn(const VARIANT& value) noexcept;  // borrowed
const wchar_t* TextIn(const VARIANT& value) noexcept;
SAFEARRAY* BytesIn(const VARIANT& value) noexcept;  // one dimension of one-byte elements

struct ByteArrayBounds {
  std::int32_t lower = 0;
  std::uint32_t count = 0;
};
ByteArrayBounds BoundsOf(const SAFEARRAY& bytes) noexcept;

// Returns the HRESULT of SafeArrayGetElement.
std::int32_t ReadByte(SAFEARRAY* bytes, std::int32_t index, std::uint8_t& element) noexcept;

}  // namespace Vx::Platform
