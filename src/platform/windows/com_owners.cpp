#include "platform/com_owners.h"

namespace Vx::Platform {

namespace {

void Clear(VARIANT& content) noexcept {
  if (FAILED(VariantClear(&content))) content = {};
}

}  // namespace

void BstrFreer::operator()(wchar_t* text) const noexcept {
  SysFreeString(text);
}

void SafeArrayDestroyer::operator()(SAFEARRAY* array) const noexcept {
  SafeArrayDestroy(array);
}

Variant::~Variant() {
  Clear(content);
}

void Variant::SetInt32(std::int32_t value) noexcept {
  Clear(content);
  V_VT(&content) = VT_I4;
  V_I4(&content) = value;
}

void Variant::SetObject(IUnknown* object) noexcept {
  object->AddRef();
  Clear(content);
  V_VT(&content) = VT_UNKNOWN;
  V_UNKNOWN(&content) = object;
}

void Variant::SetBytes(UniqueSafeArray array) noexcept {
  Clear(content);
  V_VT(&content) = VT_ARRAY | VT_UI1;
  V_ARRAY(&content) = array.release();
}

VARIANT* Variant::Receive() noexcept {
  Clear(content);
  return &content;
}

std::optional<std::int32_t> Int32In(const VARIANT& value) noexcept {
  switch (V_VT(&value)) {
    case VT_I4:
    case VT_INT:
      return V_I4(&value);
    case VT_UI4:
    case VT_UINT:
      return static_cast<std::int32_t>(V_UI4(&value));
    default:
      return std::nullopt;
  }
}

IUnknown* ObjectIn(const VARIANT& value) noexcept {
  if (V_VT(&value) != VT_UNKNOWN && V_VT(&value) != VT_DISPATCH) return nullptr;
  return V_UNKNOWN(&value);
}

const wchar_t* TextIn(const VARIANT& value) noexcept {
  return V_VT(&value) == VT_BSTR ? V_BSTR(&value) : nullptr;
}

SAFEARRAY* BytesIn(const VARIANT& value) noexcept {
  if (V_VT(&value) != (VT_ARRAY | VT_UI1)) return nullptr;
  SAFEARRAY* const array = V_ARRAY(&value);
  if (array == nullptr || array->cDims != 1) return nullptr;
  return array->cbElements == 1 ? array : nullptr;
}

ByteArrayBounds BoundsOf(const SAFEARRAY& bytes) noexcept {
  return {bytes.rgsabound[0].lLbound, bytes.rgsabound[0].cElements};
}

std::int32_t ReadByte(SAFEARRAY* bytes, std::int32_t index, std::uint8_t& element) noexcept {
  LONG at = index;
  return SafeArrayGetElement(bytes, &at, &element);
}

}  // namespace Vx::Platform
