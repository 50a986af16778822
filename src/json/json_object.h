#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/windows_runtime_error.h"

namespace Vx::Json {

// The error codes of the Windows Runtime's own JSON classes, which clients already handle.
inline constexpr auto kInvalidJsonString = static_cast<std::int32_t>(0x83750007);
inline constexpr auto kJsonValueNotFound = static_cast<std::int32_t>(0x83750009);
inline constexpr auto kIllegalMethodCall = static_cast<std::int32_t>(0x8000000E);

enum class JsonKind : std::uint8_t { Null, Boolean, Number, String, Array, Object };

class JsonObject;
namespace Detail {
struct Tree;
}  // namespace Detail

// One value of a parsed text. All values of a text share it, so a copy only increments a reference
// count. Immutable. Several threads may each use their own copy.
class JsonValue {
 public:
  // Returns the elements of a JSON array. Throws like JsonObject::Parse. Each element may be nested
  // as deeply as a separate text.
  static std::vector<JsonValue> ParseArray(std::wstring_view text);

  JsonKind Kind() const;

  // Returns compact JSON. Members keep their order, and strings and numbers are reformatted.
  std::wstring Text() const;

  // All throw WindowsRuntimeError with kIllegalMethodCall if the value is of another kind.
  std::wstring AsString() const;
  double AsNumber() const;
  JsonObject AsObject() const;

 private:
  friend class JsonObject;
  JsonValue(std::shared_ptr<const Detail::Tree> owner, const void* position)
      : tree(std::move(owner)), node(position) {}

  // Returns the value if it is of this kind. Otherwise throws an error that refers to it as `name`.
  const void* Require(JsonKind kind, std::wstring_view name = {}) const;

  std::shared_ptr<const Detail::Tree> tree;
  const void* node;  // a value in `tree`
};

// A JSON object. Like the Windows Runtime's, its functions throw WindowsRuntimeError with the key
// in the message. If a key is repeated, the first one wins. Copies share one immutable text.
class JsonObject {
 public:
  JsonObject();

  // Throws kInvalidJsonString unless ParseJson accepts `text` and its root is an object.
  static JsonObject Parse(std::wstring_view text);

  bool HasKey(std::wstring_view name) const { return Find(name).has_value(); }

  std::optional<JsonValue> Find(std::wstring_view name) const;

  // All throw kJsonValueNotFound if the member is absent, and kIllegalMethodCall if it is of
  // another kind.
  std::wstring GetNamedString(std::wstring_view name) const;
  double GetNamedNumber(std::wstring_view name) const;
  JsonObject GetNamedObject(std::wstring_view name) const;

  // Returns `fallback` if the member is absent. Throws kIllegalMethodCall if it is of another kind.
  std::wstring GetNamedString(std::wstring_view name, std::wstring_view fallback) const;

  // Returns nothing if the member is absent or of another kind.
  std::optional<std::wstring> FindString(std::wstring_view name) const;

  std::wstring Stringify() const { return value.Text(); }

  // Like Stringify, but omits every member named `name` from the first member named `object`.
  std::wstring StringifyWithout(std::wstring_view object, std::wstring_view name) const;

 private:
  friend class JsonValue;
  explicit JsonObject(JsonValue object) : value(std::move(object)) {}
  JsonValue GetNamed(std::wstring_view name, JsonKind kind) const;

  JsonValue value;
};

// Truncates `number` toward zero. Returns 0xFFFFFFFF, which is not the code of any event, action or
// catalog event, if `number` is NaN or does not fit.
std::uint32_t TruncateToUint32(double number);

}  // namespace Vx::Json
