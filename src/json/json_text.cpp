#include "json/json_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>

namespace Vx::Json {

namespace {

constexpr char kMisuse[] = "JSON value used as another type";

constexpr std::wstring_view kNumberCharacters = L"+-.0123456789Ee";

template <typename Unit>
bool IsUtf16Unit(Unit unit) {
  if constexpr (sizeof(Unit) > 2) return unit <= 0xFFFF;
  return true;
}

// The characters of a text that need not end with NUL. Past the end it gives NUL for ever.
class ViewStream {
 public:
  using Ch = wchar_t;

  explicit ViewStream(std::wstring_view text)
      : begin(text.data()), cursor(begin), end(begin + text.size()) {}

  // Where a unit is wider than 16 bits, one that is no UTF-16 is NUL too, and so refused.
  wchar_t Peek() const {
    if (cursor == end) return L'\0';
    return IsUtf16Unit(*cursor) ? *cursor : L'\0';
  }
  wchar_t Take() {
    const wchar_t unit = Peek();
    if (cursor != end) ++cursor;
    return unit;
  }
  std::size_t Tell() const { return static_cast<std::size_t>(cursor - begin); }
  bool AtEnd() const { return cursor == end; }

  // The number that was read last, if nothing was read since.
  std::wstring_view NumberBefore() const {
    const wchar_t* first = cursor;
    while (first != begin && kNumberCharacters.find(first[-1]) != std::wstring_view::npos) --first;
    return {first, static_cast<std::size_t>(cursor - first)};
  }

  // Of the in-place parse, which is not used.
  wchar_t* PutBegin() { ThrowMisuse(); }
  void Put(wchar_t) { ThrowMisuse(); }
  std::size_t PutEnd(wchar_t*) { ThrowMisuse(); }

 private:
  const wchar_t* begin;
  const wchar_t* cursor;
  const wchar_t* end;
};

// Whether a number of the text has an exponent so long that rapidjson's arithmetic on it overflows,
// and with it an index into its tables. Strings are passed over.
bool HasOverlongExponent(std::wstring_view text) {
  constexpr std::size_t kLongestExponent = 8;  // digits
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == L'"') {
      for (++i; i < text.size() && text[i] != L'"'; ++i) {
        if (text[i] == L'\\') ++i;
      }
    } else if (text[i] == L'e' || text[i] == L'E') {
      const std::size_t digits = text.find_first_not_of(L"+-", i + 1);
      const std::size_t end = std::min(text.find_first_not_of(L"0123456789", digits), text.size());
      if (digits < text.size() && end - digits > kLongestExponent) return true;
    }
  }
  return false;
}

// The double nearest to a number that rapidjson took for `approximation`; empty when it is beyond
// all doubles. rapidjson's own conversions are off by some units in the last place, so that a
// number would drift with each reading and writing, or (the exact one) read beyond their tables for
// extreme exponents.
std::optional<double> NearestDouble(std::wstring_view spelling, double approximation) {
  std::string narrow(spelling.size(), '\0');
  std::transform(spelling.begin(), spelling.end(), narrow.begin(),
                 [](wchar_t unit) { return static_cast<char>(unit); });
  double value = 0;
  const auto read = std::from_chars(narrow.data(), narrow.data() + narrow.size(), value);
  if (read.ec == std::errc()) return value;
  if (std::abs(approximation) >= 1) return std::nullopt;
  return std::copysign(0.0, approximation);
}

// Hands a parser's events on to a document, refuses what nests too deep, and makes doubles exact.
class DocumentBuilder {
 public:
  using Size = rapidjson::SizeType;

  DocumentBuilder(WideDocument& target, const ViewStream& source, std::size_t limit)
      : document(target), stream(source), levelsLeft(limit) {}

  bool Null() { return document.Null(); }
  bool Bool(bool value) { return document.Bool(value); }
  bool Int(int value) { return document.Int(value); }
  bool Uint(unsigned value) { return document.Uint(value); }
  bool Int64(std::int64_t value) { return document.Int64(value); }
  bool Uint64(std::uint64_t value) { return document.Uint64(value); }
  bool Double(double approximation) {
    const std::optional<double> exact = NearestDouble(stream.NumberBefore(), approximation);
    return exact && document.Double(*exact);
  }
  bool RawNumber(const wchar_t*, Size, bool) { ThrowMisuse(); }  // only where it is asked for
  bool String(const wchar_t* text, Size length, bool copy) {
    return document.String(text, length, copy);
  }
  bool Key(const wchar_t* text, Size length, bool copy) { return document.Key(text, length, copy); }
  bool StartObject() { return Enter() && document.StartObject(); }
  bool EndObject(Size count) { return Leave() && document.EndObject(count); }
  bool StartArray() { return Enter() && document.StartArray(); }
  bool EndArray(Size count) { return Leave() && document.EndArray(count); }

 private:
  bool Enter() {
    if (levelsLeft == 0) return false;
    --levelsLeft;
    return true;
  }
  bool Leave() {
    ++levelsLeft;
    return true;
  }

  WideDocument& document;
  const ViewStream& stream;
  std::size_t levelsLeft;
};

constexpr unsigned kParseFlags =
    rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag;

constexpr std::size_t kReaderStack = 1024;  // bytes; fits ScratchMemory's own block

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
  if (text.size() > kMaxTextLength || HasOverlongExponent(text)) return false;
  ScratchMemory scratch;
  rapidjson::GenericReader<WideEncoding, WideEncoding, ScratchMemory> reader(&scratch,
                                                                             kReaderStack);
  ViewStream stream(text);
  bool valid = false;
  auto generator = [&](WideDocument& target) {
    DocumentBuilder builder(target, stream, nestingLimit);
    // A NUL among the characters looks like the end to the reader.
    valid = !reader.template Parse<kParseFlags>(stream, builder).IsError() && stream.AtEnd();
    return valid;
  };
  try {
    document.Populate(generator);
  } catch (const Misuse&) {
    // How an unpaired trailing surrogate in an escape shows.
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
