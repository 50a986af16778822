#include "json/json_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>

#include "json/in_place_stream.h"

namespace Vx::Json {

namespace {

constexpr char kMisuse[] = "JSON value used as another type";

// Rejects text that rapidjson cannot handle safely: unpaired surrogates, units beyond UTF-16 (where
// wchar_t is wider), and exponents that would overflow its arithmetic and then index a table.
class TextCheck {
 public:
  explicit TextCheck(std::wstring_view checked) : text(checked) {}

  bool Passes() { return !NeedsALook() || PassesALook(); }

  std::size_t FaultAt() const { return std::min(at, text.size()); }

 private:
  // Returns whether the text contains anything that could be rejected, which is rare. Treats
  // strings and numbers alike and does not branch, so that the compiler vectorizes the loop. That
  // cuts the time of the row "id 22, 20 KiB" in docs/performance.md by three quarters.
  bool NeedsALook() const {
    if (text.empty()) return false;
    const std::size_t last = text.size() - 1;
    Unit found = static_cast<Unit>(text[last]) >= kFirstSurrogate;
    for (std::size_t i = 0; i < last; ++i) {
      const auto unit = static_cast<Unit>(text[i]);
      const auto fromPlus = static_cast<Unit>(text[i + 1] - L'+');  // after 'e': '+' to '9'
      found |=
          static_cast<Unit>(unit >= kFirstSurrogate) |
          (static_cast<Unit>((unit | 0x20U) == L'e') & static_cast<Unit>(fromPlus <= L'9' - L'+'));
    }
    return found != 0;
  }

  bool PassesALook() {
    bool inString = false;
    for (at = 0; at < text.size(); ++at) {
      const auto unit = static_cast<std::uint32_t>(text[at]);
      if (unit == L'"') {
        inString = !inString;
      } else if (unit >= 0xD800) {
        if (!PassesHighUnit(unit)) return false;
      } else if (inString) {
        if (unit == L'\\')
          ++at;  // an escaped unit does not end the string; an escaped surrogate is invalid anyway
      } else if ((unit == L'e' || unit == L'E') && HasLongExponent()) {
        return false;
      }
    }
    return true;
  }

  bool PassesHighUnit(std::uint32_t unit) {
    if (unit > 0xDFFF) return unit <= 0xFFFF;
    if (unit > 0xDBFF || at + 1 == text.size()) return false;
    const auto trail = static_cast<std::uint32_t>(text[++at]);
    return trail >= 0xDC00 && trail <= 0xDFFF;
  }

  bool HasLongExponent() const {
    constexpr std::size_t kLongest = 8;  // digits
    const std::size_t digits = text.find_first_not_of(L"+-", at + 1);
    if (digits == std::wstring_view::npos) return false;
    const std::size_t end = std::min(text.find_first_not_of(L"0123456789", digits), text.size());
    return end - digits > kLongest;
  }

  std::wstring_view text;
  std::size_t at = 0;
};

// Returns the double nearest to a number that rapidjson read as `approximation`, or nothing if it
// is too large. rapidjson's fast conversion errs in the last digits, so a number would drift each
// time it is read and written. Its exact conversion reads beyond its tables for extreme exponents.
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

// Forwards a parser's events to a document, limits the nesting, and makes doubles exact.
class DocumentBuilder {
 public:
  using Size = rapidjson::SizeType;

  DocumentBuilder(WideDocument& target, const InPlaceStream& source, std::size_t limit)
      : document(target), stream(source), levelsLeft(limit) {}

  bool Null() { return document.Null(); }
  bool Bool(bool value) { return document.Bool(value); }
  bool Int(int value) { return document.Int(value); }
  bool Uint(unsigned value) { return document.Uint(value); }
  bool Int64(std::int64_t value) { return document.Int64(value); }
  bool Uint64(std::uint64_t value) { return document.Uint64(value); }
  bool Double(double approximation) {
    const std::optional<double> exact = NearestDouble(NumberHere(), approximation);
    return exact && document.Double(*exact);
  }
  bool RawNumber(const wchar_t*, Size, bool) { ThrowMisuse(); }  // its flag is not set
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

  // The reader advances a copy of its stream and writes the copy back after the event. Until then
  // the stream points to the beginning of the number.
  std::wstring_view NumberHere() const {
    const std::wstring_view characters = L"+-.0123456789Ee";
    const wchar_t* const begin = stream.Here();
    const wchar_t* end = begin;
    while (*end != L'\0' && characters.find(*end) != std::wstring_view::npos) ++end;
    return {begin, static_cast<std::size_t>(end - begin)};
  }

  WideDocument& document;
  const InPlaceStream& stream;
  std::size_t levelsLeft;
};

constexpr unsigned kParseFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseInsituFlag;

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

bool ParseJson(WideDocument& document, std::wstring_view text, std::size_t nestingLimit,
               ParseFault* fault) {
  const auto tell = [fault](std::size_t offset, rapidjson::ParseErrorCode code) {
    if (fault != nullptr) *fault = {.offset = offset, .code = code};
  };
  document.SetNull();
  TextCheck check(text);
  if (text.size() > kMaxTextLength || !check.Passes()) {
    tell(check.FaultAt(), rapidjson::kParseErrorNone);
    return false;
  }
  auto* own =
      static_cast<wchar_t*>(document.GetAllocator().Malloc((text.size() + 1) * sizeof(wchar_t)));
  wchar_t* const end = std::copy(text.begin(), text.end(), own);
  *end = L'\0';
  InPlaceStream stream(own, end);
  ScratchMemory scratch;
  rapidjson::GenericReader<WideEncoding, WideEncoding, ScratchMemory> reader(&scratch,
                                                                             kReaderStack);
  bool valid = false;
  auto generator = [&](WideDocument& target) {
    DocumentBuilder builder(target, stream, nestingLimit);
    // The reader stops at an embedded NUL.
    const rapidjson::ParseResult result = reader.template Parse<kParseFlags>(stream, builder);
    valid = !result.IsError() && stream.Tell() == text.size();
    if (result.IsError()) {
      tell(result.Offset(), result.Code());
    } else if (!valid) {
      tell(stream.Tell(), rapidjson::kParseErrorDocumentRootNotSingular);
    }
    return valid;
  };
  try {
    document.Populate(generator);
  } catch (const Misuse&) {
    // rapidjson asserts on an unpaired trail surrogate in an escape.
    valid = false;
    tell(stream.Tell(), rapidjson::kParseErrorStringUnicodeSurrogateInvalid);
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
