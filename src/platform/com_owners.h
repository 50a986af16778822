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

// Owns a BSTR.
using UniqueBstr = std::unique_ptr<wchar_t, BstrFreer>;

struct SafeArrayDestroyer {
  void operator()(SAFEARRAY* array) const noexcept;  // SafeArrayDestroy
};

// Owns a SAFEARRAY and its elements.
using UniqueSafeArray = std::unique_ptr<SAFEARRAY, SafeArrayDestroyer>;

// A VARIANT that clears itself, and with it whatever it holds. Starts empty.
class Variant {
 public:
  Variant() noexcept;
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;
  ~Variant();

  void SetInt32(std::int32_t value) noexcept;

  // Adds a reference of its own.
  void SetObject(IUnknown* object) noexcept;

  // Null is a byte array too: the one without elements.
  void SetBytes(UniqueSafeArray array) noexcept;

  // The content, to be passed to calls that read it.
  VARIANT* Get() noexcept { return &content; }
  const VARIANT& operator*() const noexcept { return content; }

  // Where a call puts a new value; what was held is cleared first.
  VARIANT* Receive() noexcept;

 private:
  VARIANT content{};
};

// What another program left in a VARIANT, looked at without trust: each is empty (or null) unless
// the content really is of the kind, whatever its type word claims.
std::optional<std::int32_t> Int32In(const VARIANT& value) noexcept;
IUnknown* ObjectIn(const VARIANT& value) noexcept;  // borrowed
const wchar_t* TextIn(const VARIANT& value) noexcept;
SAFEARRAY* BytesIn(const VARIANT& value) noexcept;  // one dimension of one-byte elements

// Bounds of a byte array that BytesIn answered.
struct ByteArrayBounds {
  std::int32_t lower = 0;
  std::uint32_t count = 0;
};
ByteArrayBounds BoundsOf(const SAFEARRAY& bytes) noexcept;

// The element with this index, through SafeArrayGetElement; nothing when there is none.
std::optional<std::uint8_t> ByteAt(SAFEARRAY* bytes, std::int32_t index) noexcept;

}  // namespace Vx::Platform
