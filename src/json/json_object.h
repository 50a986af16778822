#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/windows_runtime_error.h"

namespace Vx::Json {

// The codes of the Windows Runtime's own JSON layer, which clients of this one know.
inline constexpr auto kInvalidJsonString = static_cast<std::int32_t>(0x83750007);
inline constexpr auto kJsonValueNotFound = static_cast<std::int32_t>(0x83750009);
inline constexpr auto kIllegalMethodCall = static_cast<std::int32_t>(0x8000000E);

enum class JsonKind : std::uint8_t { Null, Boolean, Number, String, Array, Object };

class JsonObject;
class JsonArray;
namespace Detail {
struct Tree;
}  // namespace Detail

// One value of a parsed text. Shares the text with every value taken from it, so a copy costs a
// reference count; immutable, any thread may use a copy of its own.
class JsonValue {
 public:
  JsonKind Kind() const;

  // The value as compact JSON: no white space, members in their order, texts and numbers in the
  // writer's one spelling.
  std::wstring Text() const;

  // Each throws Platform::WindowsRuntimeError with kIllegalMethodCall when the value is of another
  // kind.
  std::wstring AsString() const;
  double AsNumber() const;
  JsonObject AsObject() const;

 private:
  friend class JsonObject;
  friend class JsonArray;
  JsonValue(std::shared_ptr<const Detail::Tree> owner, const void* position)
      : tree(std::move(owner)), node(position) {}

  // The value, if it is of this kind; `name` is what the error says of it.
  const void* Require(JsonKind kind, std::wstring_view name = {}) const;

  std::shared_ptr<const Detail::Tree> tree;
  const void* node;  // a value in `tree`
};

// A JSON object that throws where a member is missing or of another kind, as the Windows Runtime's
// does; the error's message names the key. Of repeated keys the first counts. Copies share one
// immutable text.
class JsonObject {
 public:
  // An empty object.
  JsonObject();

  // Throws Platform::WindowsRuntimeError with kInvalidJsonString when `text` is not valid JSON (see
  // ParseJson for the fine print) or not an object.
  static JsonObject Parse(std::wstring_view text);

  bool HasKey(std::wstring_view name) const { return Find(name).has_value(); }

  // The member, or nothing.
  std::optional<JsonValue> Find(std::wstring_view name) const;

  // The getters throw Platform::WindowsRuntimeError: kJsonValueNotFound when the member is absent,
  // kIllegalMethodCall when it is of another kind (JSON null is another kind).
  JsonValue GetNamedValue(std::wstring_view name) const;
  std::wstring GetNamedString(std::wstring_view name) const;
  double GetNamedNumber(std::wstring_view name) const;
  JsonObject GetNamedObject(std::wstring_view name) const;

  // `fallback` when the member is absent; throws kIllegalMethodCall when it is of another kind.
  std::wstring GetNamedString(std::wstring_view name, std::wstring_view fallback) const;

  // The text of the member; nothing when it is absent or of another kind.
  std::optional<std::wstring> FindString(std::wstring_view name) const;

  // As JsonValue::Text.
  std::wstring Stringify() const { return value.Text(); }

  // Stringify without the members called `name` of the member object called `object` (the first of
  // that name); the whole text when there are none.
  std::wstring StringifyWithout(std::wstring_view object, std::wstring_view name) const;

 private:
  friend class JsonValue;
  explicit JsonObject(JsonValue object) : value(std::move(object)) {}
  JsonValue GetNamed(std::wstring_view name, JsonKind kind) const;

  JsonValue value;
};

// A JSON array, walked from the front. Copies share one immutable text.
class JsonArray {
 public:
  // Throws Platform::WindowsRuntimeError with kInvalidJsonString when `text` is not valid JSON or
  // not an array. Elements may nest as deep as a text of their own.
  static JsonArray Parse(std::wstring_view text);

  // An iterator good for a range-for loop.
  class Iterator {
   public:
    JsonValue operator*() const;
    Iterator& operator++();
    bool operator==(const Iterator& other) const { return node == other.node; }

   private:
    friend class JsonArray;
    Iterator(const JsonArray* owner, const void* position) : array(owner), node(position) {}
    const JsonArray* array;
    const void* node;
  };

  // The iterators borrow the array.
  Iterator begin() const;
  Iterator end() const;

  std::wstring Stringify() const { return value.Text(); }

 private:
  friend class JsonValue;
  explicit JsonArray(JsonValue array) : value(std::move(array)) {}

  JsonValue value;
};

// `number` truncated toward zero. What does not fit (negative values of -1 and less, 2^32 and more)
// gives 0xFFFFFFFF, which no event, action or catalog code of ours uses; not-a-number too.
std::uint32_t TruncateToUint32(double number);

}  // namespace Vx::Json
