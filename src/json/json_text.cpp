#include "json/json_text.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace Vx::Json {

namespace {

constexpr char kMisuse[] = "JSON value used as another type";

// Feeds a document, which builds its values from such events itself.
class DocumentBuilder {
 public:
  explicit DocumentBuilder(WideDocument& target) : document(target) {}

  bool Null() { return document.Null(); }
  bool Boolean(bool value) { return document.Bool(value); }

  bool Number(const Token& token) {
    const std::optional<NumberVariant> number = NumberOf(token.spelling);
    if (!number) return false;
    if (const auto* whole = std::get_if<std::uint64_t>(&*number)) {
      return *whole <= std::numeric_limits<unsigned>::max()
                 ? document.Uint(static_cast<unsigned>(*whole))
                 : document.Uint64(*whole);
    }
    if (const auto* negative = std::get_if<std::int64_t>(&*number)) {
      return *negative >= std::numeric_limits<int>::min()
                 ? document.Int(static_cast<int>(*negative))
                 : document.Int64(*negative);
    }
    return document.Double(std::get<double>(*number));
  }

  bool String(const Token& token) {
    const std::wstring_view text = Value(token);
    return document.String(text.data(), static_cast<rapidjson::SizeType>(text.size()), true);
  }

  bool Key(const Token& token) { return String(token); }
  bool Open(bool object) { return object ? document.StartObject() : document.StartArray(); }
  bool Close(bool object, std::uint32_t count) {
    return object ? document.EndObject(count) : document.EndArray(count);
  }

 private:
  std::wstring_view Value(const Token& token) {
    if (!token.escaped) return token.spelling;
    Unescape(token.spelling, scratch);
    return scratch;
  }

  WideDocument& document;
  std::wstring scratch;
};

}  // namespace

void ThrowMisuse() {
  throw Misuse(kMisuse);
}

void* ScratchMemory::Malloc(std::size_t size) {
  if (size == 0) return nullptr;
  const bool useOwn = !ownTaken && size <= sizeof own - sizeof(Header);
  void* const block = useOwn ? own : std::malloc(size + sizeof(Header));
  if (block == nullptr) throw std::bad_alloc();
  ownTaken = ownTaken || useOwn;
  return new (block) Header{!useOwn} + 1;
}

void* ScratchMemory::Realloc(void* old, std::size_t oldSize, std::size_t size) {
  if (old == nullptr) return Malloc(size);
  if (size != 0 && size <= oldSize) return old;
  void* const block = Malloc(size);
  if (block != nullptr) std::memcpy(block, old, oldSize);
  Free(old);
  return block;
}

void ScratchMemory::Free(void* block) {
  if (block == nullptr) return;
  Header* const header = static_cast<Header*>(block) - 1;
  if (header->onHeap) std::free(header);
}

bool ParseJson(WideDocument& document, std::wstring_view text, std::size_t nestingLimit) {
  document.SetNull();
  bool valid = false;
  try {
    auto generator = [&](WideDocument& target) {
      DocumentBuilder builder(target);
      return valid = Reader(text, builder, nestingLimit).Run();
    };
    document.Populate(generator);
  } catch (const Misuse&) {
    valid = false;
  }
  return valid;
}

void TextBuffer::Grow() {
  std::vector<wchar_t> larger(capacity * 2);
  std::copy_n(data, size, larger.data());
  heap.swap(larger);
  data = heap.data();
  capacity = heap.size();
}

bool WriteJson(const WideValue& value, TextBuffer& out) {
  constexpr std::size_t kLevels = 32;
  ScratchMemory scratch;
  rapidjson::Writer<TextBuffer, WideEncoding, WideEncoding, ScratchMemory> writer(out, &scratch,
                                                                                  kLevels);
  return value.Accept(writer);
}

std::wstring JsonText(const WideValue& value) {
  TextBuffer buffer;
  return WriteJson(value, buffer) ? std::wstring(buffer.View()) : std::wstring();
}

}  // namespace Vx::Json
