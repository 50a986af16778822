#include "json/json_object.h"

#include <limits>
#include <utility>
#include <variant>
#include <vector>

#include "json/json_reader.h"

namespace Vx::Json {

namespace Detail {

// One value: where it and its key stand in the compact text, and where its next sibling's node is.
// The nodes of a container's content follow its own.
struct Node {
  JsonKind kind;
  bool keyEscaped;
  bool escaped;
  std::uint32_t keyBegin;  // without the quotes
  std::uint32_t keyEnd;
  std::uint32_t begin;
  std::uint32_t end;
  std::uint32_t next;  // the node after this value's last
};

struct Tree {
  std::wstring text;  // compact
  std::vector<Node> nodes;

  std::wstring_view Slice(std::uint32_t begin, std::uint32_t end) const {
    return std::wstring_view(text).substr(begin, end - begin);
  }

  bool KeyIs(const Node& node, std::wstring_view name) const {
    const std::wstring_view spelling = Slice(node.keyBegin, node.keyEnd);
    if (!node.keyEscaped) return spelling == name;
    std::wstring key;
    Unescape(spelling, key);
    return key == name;
  }
};

}  // namespace Detail

namespace {

using Detail::Node;
using Detail::Tree;

// What error messages say of a key.
constexpr wchar_t kMissing[] = L" is missing";
constexpr wchar_t kOtherKind[] = L" is a value of another type";
constexpr wchar_t kNotThatText[] = L"the text is not valid JSON or not of the wanted type";

class TreeBuilder {
 public:
  explicit TreeBuilder(Tree& target) : tree(target) {}

  bool Null() { return Scalar(JsonKind::Null, L"null"); }
  bool Boolean(bool value) {
    return Scalar(JsonKind::Boolean, value ? std::wstring_view(L"true") : L"false");
  }

  bool Number(const Token& token) {
    // A short number without an exponent cannot be too large; the others are worth a look.
    constexpr std::size_t kSafeLength = 300;
    if ((token.spelling.size() > kSafeLength ||
         token.spelling.find_first_of(L"eE") != std::wstring_view::npos) &&
        !NumberOf(token.spelling)) {
      return false;
    }
    return Scalar(JsonKind::Number, token.spelling);
  }

  bool String(const Token& token) {
    Node& node = Begin(JsonKind::String);
    node.escaped = token.escaped;
    Quoted(token.spelling);
    End(node);
    return true;
  }

  bool Key(const Token& token) {
    Separate();
    key.keyEscaped = token.escaped;
    key.keyBegin = Position() + 1;
    Quoted(token.spelling);
    key.keyEnd = Position() - 1;
    tree.text.push_back(L':');
    afterKey = true;
    return true;
  }

  bool Open(bool object) {
    Begin(object ? JsonKind::Object : JsonKind::Array);
    open.push_back(static_cast<std::uint32_t>(tree.nodes.size() - 1));
    tree.text.push_back(object ? L'{' : L'[');
    first = true;
    return true;
  }

  bool Close(bool object, std::uint32_t) {
    tree.text.push_back(object ? L'}' : L']');
    End(tree.nodes[open.back()]);
    open.pop_back();
    return true;
  }

 private:
  std::uint32_t Position() const { return static_cast<std::uint32_t>(tree.text.size()); }

  // A comma, unless nothing stands before in this container.
  void Separate() {
    if (!first) tree.text.push_back(L',');
    first = false;
  }

  void Quoted(std::wstring_view spelling) {
    tree.text.push_back(L'"');
    tree.text.append(spelling);
    tree.text.push_back(L'"');
  }

  Node& Begin(JsonKind kind) {
    if (!afterKey) Separate();
    afterKey = false;
    Node node = std::exchange(key, {});
    node.kind = kind;
    node.begin = Position();
    return tree.nodes.emplace_back(node);
  }

  void End(Node& node) {
    node.end = Position();
    node.next = static_cast<std::uint32_t>(tree.nodes.size());
    first = false;
  }

  bool Scalar(JsonKind kind, std::wstring_view spelling) {
    Node& node = Begin(kind);
    tree.text.append(spelling);
    End(node);
    return true;
  }

  Tree& tree;
  Node key = {};  // holds the key of the member whose value comes next
  std::vector<std::uint32_t> open;
  bool first = true;
  bool afterKey = false;
};

std::shared_ptr<const Tree> ParseTree(std::wstring_view text, std::size_t nestingLimit,
                                      JsonKind root) {
  auto tree = std::make_shared<Tree>();
  tree->text.reserve(text.size() <= kMaxTextLength ? text.size() : 0);
  TreeBuilder builder(*tree);
  if (!Reader(text, builder, nestingLimit).Run() || tree->nodes.front().kind != root) {
    throw winrt::hresult_error(kInvalidJsonString, kNotThatText);
  }
  return tree;
}

}  // namespace

JsonKind JsonValue::Kind() const {
  return tree->nodes[node].kind;
}

std::wstring_view JsonValue::Text() const {
  return tree->Slice(tree->nodes[node].begin, tree->nodes[node].end);
}

const JsonValue& JsonValue::Require(JsonKind kind) const {
  if (Kind() == kind) return *this;
  const Detail::Node& self = tree->nodes[node];
  throw winrt::hresult_error(kIllegalMethodCall,
                             std::wstring(tree->Slice(self.keyBegin, self.keyEnd)) + kOtherKind);
}

std::wstring JsonValue::AsString() const {
  const std::wstring_view quoted = Require(JsonKind::String).Text();
  const std::wstring_view spelling = quoted.substr(1, quoted.size() - 2);
  if (!tree->nodes[node].escaped) return std::wstring(spelling);
  std::wstring text;
  Unescape(spelling, text);
  return text;
}

double JsonValue::AsNumber() const {
  const std::optional<NumberVariant> number = NumberOf(Require(JsonKind::Number).Text());
  if (!number) throw winrt::hresult_error(kIllegalMethodCall);
  return std::visit([](auto value) { return static_cast<double>(value); }, *number);
}

bool JsonValue::AsBoolean() const {
  return Require(JsonKind::Boolean).Text() == L"true";
}

JsonObject JsonValue::AsObject() const {
  return JsonObject(Require(JsonKind::Object));
}

JsonArray JsonValue::AsArray() const {
  return JsonArray(Require(JsonKind::Array));
}

JsonObject::JsonObject() : JsonObject(Parse(L"{}")) {}

JsonObject JsonObject::Parse(std::wstring_view text) {
  return JsonObject(JsonValue(ParseTree(text, kMaxNesting, JsonKind::Object), 0));
}

std::optional<JsonValue> JsonObject::Find(std::wstring_view name) const {
  const Tree& tree = *value.tree;
  const std::uint32_t end = tree.nodes[value.node].next;
  for (std::uint32_t i = value.node + 1; i != end; i = tree.nodes[i].next) {
    if (tree.KeyIs(tree.nodes[i], name)) return JsonValue(value.tree, i);
  }
  return std::nullopt;
}

JsonValue JsonObject::GetNamedValue(std::wstring_view name) const {
  std::optional<JsonValue> member = Find(name);
  if (!member) throw winrt::hresult_error(kJsonValueNotFound, std::wstring(name) + kMissing);
  return *std::move(member);
}

std::wstring JsonObject::GetNamedString(std::wstring_view name) const {
  return GetNamedValue(name).AsString();
}

double JsonObject::GetNamedNumber(std::wstring_view name) const {
  return GetNamedValue(name).AsNumber();
}

bool JsonObject::GetNamedBoolean(std::wstring_view name) const {
  return GetNamedValue(name).AsBoolean();
}

JsonObject JsonObject::GetNamedObject(std::wstring_view name) const {
  return GetNamedValue(name).AsObject();
}

JsonArray JsonObject::GetNamedArray(std::wstring_view name) const {
  return GetNamedValue(name).AsArray();
}

std::wstring JsonObject::GetNamedString(std::wstring_view name, std::wstring_view fallback) const {
  const std::optional<JsonValue> member = Find(name);
  return member ? member->AsString() : std::wstring(fallback);
}

std::optional<std::wstring> JsonObject::FindString(std::wstring_view name) const {
  const std::optional<JsonValue> member = Find(name);
  if (!member || member->Kind() != JsonKind::String) return std::nullopt;
  return member->AsString();
}

std::wstring JsonObject::StringifyWithout(std::wstring_view object, std::wstring_view name) const {
  const std::optional<JsonValue> inner = Find(object);
  if (!inner || inner->Kind() != JsonKind::Object) return Stringify();
  const Tree& tree = *value.tree;
  const Node& root = tree.nodes[value.node];
  const Node& container = tree.nodes[inner->node];

  std::wstring out(tree.Slice(root.begin, container.begin + 1));
  bool first = true;
  for (std::uint32_t i = inner->node + 1; i != container.next; i = tree.nodes[i].next) {
    const Node& member = tree.nodes[i];
    if (tree.KeyIs(member, name)) continue;
    if (!first) out.push_back(L',');
    first = false;
    out.append(tree.Slice(member.keyBegin - 1, member.end));
  }
  out.append(tree.Slice(container.end - 1, root.end));
  return out;
}

JsonArray JsonArray::Parse(std::wstring_view text) {
  return JsonArray(JsonValue(ParseTree(text, kMaxListNesting, JsonKind::Array), 0));
}

JsonArray::Iterator JsonArray::begin() const {
  return {this, value.node + 1};
}

JsonArray::Iterator JsonArray::end() const {
  return {this, value.tree->nodes[value.node].next};
}

std::size_t JsonArray::Size() const {
  std::size_t count = 0;
  for (Iterator i = begin(); !(i == end()); ++i) ++count;
  return count;
}

JsonValue JsonArray::Iterator::operator*() const {
  return JsonValue(array->value.tree, node);
}

JsonArray::Iterator& JsonArray::Iterator::operator++() {
  node = array->value.tree->nodes[node].next;
  return *this;
}

std::uint32_t TruncateToUint32(double number) {
  constexpr double kEnd = 4294967296.0;
  if (!(number > -1.0 && number < kEnd)) return std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(number);
}

}  // namespace Vx::Json
