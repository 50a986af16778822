#include "json/json_object.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include "json/json_text.h"

namespace Vx::Json {

namespace Detail {

struct Tree {
  // Sized to the text, because many small objects exist at once.
  explicit Tree(std::size_t textLength)
      : pool(std::clamp(textLength * 8, std::size_t{512}, kPoolChunk)), document(&pool) {}

  WidePool pool;
  WideDocument document;
};

}  // namespace Detail

namespace {

using Detail::Tree;

// Appended to the key in error messages.
constexpr wchar_t kMissing[] = L" is missing";
constexpr wchar_t kOtherKind[] = L" is a value of another type";
constexpr wchar_t kNotThatText[] = L"the text is not valid JSON or not of the wanted type";

// A JsonValue stores a void pointer because its header does not include rapidjson's.
const WideValue& At(const void* node) {
  return *static_cast<const WideValue*>(node);
}

std::wstring_view TextOf(const WideValue& value) {
  return {value.GetString(), value.GetStringLength()};
}

JsonKind KindOf(const WideValue& value) {
  // In the order of rapidjson::Type.
  static constexpr JsonKind kKinds[] = {JsonKind::Null,   JsonKind::Boolean, JsonKind::Boolean,
                                        JsonKind::Object, JsonKind::Array,   JsonKind::String,
                                        JsonKind::Number};
  static_assert(std::size(kKinds) == rapidjson::kNumberType + 1);
  return kKinds[value.GetType()];
}

std::shared_ptr<const Tree> ParseTree(std::wstring_view text, std::size_t nestingLimit,
                                      JsonKind root) {
  auto tree = std::make_shared<Tree>(text.size());
  if (!ParseJson(tree->document, text, nestingLimit) || KindOf(tree->document) != root) {
    throw Platform::WindowsRuntimeError(kInvalidJsonString, kNotThatText);
  }
  return tree;
}

}  // namespace

std::vector<JsonValue> JsonValue::ParseArray(std::wstring_view text) {
  const auto tree = ParseTree(text, kMaxListNesting, JsonKind::Array);
  std::vector<JsonValue> elements;
  elements.reserve(tree->document.Size());
  for (const WideValue& element : tree->document.GetArray()) {
    elements.push_back(JsonValue(tree, &element));
  }
  return elements;
}

JsonKind JsonValue::Kind() const {
  return KindOf(At(node));
}

std::wstring JsonValue::Text() const {
  return JsonText(At(node));
}

const void* JsonValue::Require(JsonKind kind, std::wstring_view name) const {
  if (Kind() == kind) return node;
  throw Platform::WindowsRuntimeError(kIllegalMethodCall, std::wstring(name) + kOtherKind);
}

std::wstring JsonValue::AsString() const {
  return std::wstring(TextOf(At(Require(JsonKind::String))));
}

double JsonValue::AsNumber() const {
  return At(Require(JsonKind::Number)).GetDouble();
}

JsonObject JsonValue::AsObject() const {
  Require(JsonKind::Object);
  return JsonObject(*this);
}

JsonObject::JsonObject() : JsonObject(Parse(L"{}")) {}

JsonObject JsonObject::Parse(std::wstring_view text) {
  auto tree = ParseTree(text, kMaxNesting, JsonKind::Object);
  const WideValue* root = &tree->document;
  return JsonObject(JsonValue(std::move(tree), root));
}

std::optional<JsonValue> JsonObject::Find(std::wstring_view name) const {
  for (const auto& member : At(value.node).GetObject()) {
    if (TextOf(member.name) == name) return JsonValue(value.tree, &member.value);
  }
  return std::nullopt;
}

JsonValue JsonObject::GetNamed(std::wstring_view name, JsonKind kind) const {
  std::optional<JsonValue> member = Find(name);
  if (!member) {
    throw Platform::WindowsRuntimeError(kJsonValueNotFound, std::wstring(name) + kMissing);
  }
  member->Require(kind, name);
  return *std::move(member);
}

std::wstring JsonObject::GetNamedString(std::wstring_view name) const {
  return GetNamed(name, JsonKind::String).AsString();
}

double JsonObject::GetNamedNumber(std::wstring_view name) const {
  return GetNamed(name, JsonKind::Number).AsNumber();
}

JsonObject JsonObject::GetNamedObject(std::wstring_view name) const {
  return GetNamed(name, JsonKind::Object).AsObject();
}

std::wstring JsonObject::GetNamedString(std::wstring_view name, std::wstring_view fallback) const {
  return HasKey(name) ? GetNamedString(name) : std::wstring(fallback);
}

std::optional<std::wstring> JsonObject::FindString(std::wstring_view name) const {
  const std::optional<JsonValue> member = Find(name);
  if (!member || member->Kind() != JsonKind::String) return std::nullopt;
  return member->AsString();
}

std::wstring JsonObject::StringifyWithout(std::wstring_view object, std::wstring_view name) const {
  Tree copy(0);
  WideDocument& all = copy.document;
  // Unlike CopyFrom, whose stack does not check for null, this throws if out of memory.
  auto source = [this](WideDocument& target) { return At(value.node).Accept(target); };
  all.Populate(source);
  const auto inner = all.FindMember(WideValue(rapidjson::StringRef(object.data(), object.size())));
  if (inner < all.MemberEnd() && inner->value.IsObject()) {
    WideValue kept(rapidjson::kObjectType);
    for (auto member = inner->value.MemberBegin(); member < inner->value.MemberEnd(); ++member) {
      if (TextOf(member->name) != name) kept.AddMember(member->name, member->value, copy.pool);
    }
    inner->value = kept;
  }
  return JsonText(all);
}

std::uint32_t TruncateToUint32(double number) {
  constexpr double kEnd = 4294967296.0;
  if (!(number > -1.0 && number < kEnd)) return std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(number);
}

}  // namespace Vx::Json
