#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace Vx::Json {

// How deep objects and arrays may lie in one another; a text beyond it is not valid JSON. Real
// documents use three or four levels.
inline constexpr std::size_t kMaxNesting = 128;

// The same for a list whose elements are documents of their own.
inline constexpr std::size_t kMaxListNesting = kMaxNesting + 1;

// A longer text, in UTF-16 units, is not valid JSON: offsets into it are kept in 32 bits.
inline constexpr std::size_t kMaxTextLength = std::size_t{64} * 1024 * 1024;

// A JSON number as the narrowest type that holds it exactly, or the nearest double.
using NumberVariant = std::variant<std::int64_t, std::uint64_t, double>;

// A scalar of the text as it is spelled there; strings and keys without their quotes.
struct Token {
  std::wstring_view spelling;
  bool escaped = false;  // the spelling of this string holds an escape
};

// The value of a number's spelling; empty when it is too large for a double. One that is too small
// is zero. Whole numbers beyond 64 bits become doubles.
std::optional<NumberVariant> NumberOf(std::wstring_view spelling);

// The value of a string's spelling.
void Unescape(std::wstring_view spelling, std::wstring& out);

// Reads one JSON text (RFC 8259, nothing more) and tells `Handler` what is in it, in order. Keeps
// its place on its own stack, so that nesting costs no machine stack. Refused: control characters
// in strings, unpaired surrogates (raw or escaped), a surrogate pair that is half escaped.
//
// Handler: bool Null(), Boolean(bool), Number(Token), String(Token), Key(Token), Open(isObject),
// Close(isObject, count); false refuses the text.
template <typename Handler>
class Reader {
 public:
  Reader(std::wstring_view text, Handler& receiver, std::size_t nestingLimit)
      : cursor(text.data()),
        end(text.data() + text.size()),
        handler(receiver),
        limit(nestingLimit < kMaxListNesting ? nestingLimit : kMaxListNesting) {}

  // Whether the text is one whole JSON value and the handler took all of it.
  bool Run() {
    if (static_cast<std::size_t>(end - cursor) > kMaxTextLength) return false;
    for (;;) {
      SkipBlanks();
      const Step step = Value();
      if (step == Step::Refuse) return false;
      if (step == Step::Descend) continue;
      const Step after = AfterValue();
      if (after == Step::Refuse) return false;
      if (after == Step::Done) return true;
    }
  }

 private:
  enum class Step : std::uint8_t { Refuse, Descend, Ended, Done };
  struct Level {
    bool object;
    std::uint32_t count;
  };

  // NUL at the end, which is no JSON character either.
  wchar_t Peek() const { return cursor == end ? L'\0' : *cursor; }

  bool Take(wchar_t expected) {
    if (Peek() != expected) return false;
    ++cursor;
    return true;
  }

  void SkipBlanks() {
    while (cursor != end &&
           (*cursor == L' ' || *cursor == L'\n' || *cursor == L'\r' || *cursor == L'\t')) {
      ++cursor;
    }
  }

  bool Word(std::wstring_view word) {
    if (static_cast<std::size_t>(end - cursor) < word.size() ||
        std::wstring_view(cursor, word.size()) != word) {
      return false;
    }
    cursor += word.size();
    return true;
  }

  static Step Ended(bool taken) { return taken ? Step::Ended : Step::Refuse; }

  // One value from its first character on; Descend when it opened a container whose first value
  // comes next.
  Step Value() {
    switch (Peek()) {
      case L'{':
        return Open(true);
      case L'[':
        return Open(false);
      case L'"': {
        Token token;
        return Ended(String(token) && handler.String(token));
      }
      case L't':
        return Ended(Word(L"true") && handler.Boolean(true));
      case L'f':
        return Ended(Word(L"false") && handler.Boolean(false));
      case L'n':
        return Ended(Word(L"null") && handler.Null());
      default: {
        Token token;
        return Ended(Digits(token) && handler.Number(token));
      }
    }
  }

  Step Open(bool object) {
    ++cursor;
    if (depth == limit || !handler.Open(object)) return Step::Refuse;
    levels[depth++] = {object, 0};
    SkipBlanks();
    if (Take(object ? L'}' : L']')) return Ended(Close());
    if (object && !Key()) return Step::Refuse;
    return Step::Descend;
  }

  bool Close() {
    const Level closed = levels[--depth];
    return handler.Close(closed.object, closed.count);
  }

  // What follows a value: the ends of containers, then the text's end (Done) or another value.
  Step AfterValue() {
    for (;;) {
      SkipBlanks();
      if (depth == 0) return cursor == end ? Step::Done : Step::Refuse;
      Level& level = levels[depth - 1];
      ++level.count;
      if (Take(L',')) {
        SkipBlanks();
        return !level.object || Key() ? Step::Descend : Step::Refuse;
      }
      if (!Take(level.object ? L'}' : L']') || !Close()) return Step::Refuse;
    }
  }

  bool Key() {
    Token token;
    if (!String(token) || !handler.Key(token)) return false;
    SkipBlanks();
    return Take(L':');
  }

  bool String(Token& token) {
    if (!Take(L'"')) return false;
    const wchar_t* const begin = cursor;
    while (cursor != end) {
      const auto unit = static_cast<std::uint32_t>(*cursor);
      if (unit == L'"') {
        token.spelling = {begin, static_cast<std::size_t>(cursor - begin)};
        ++cursor;
        return true;
      }
      if (unit == L'\\') {
        token.escaped = true;
        if (!Escape()) return false;
      } else if (unit < 0x20 || unit > 0xFFFF) {
        return false;
      } else if ((unit & 0xF800U) == 0xD800U) {
        if (!IsLead(unit) || end - cursor < 2 || !IsTrail(static_cast<std::uint32_t>(cursor[1]))) {
          return false;
        }
        cursor += 2;
      } else {
        ++cursor;
      }
    }
    return false;
  }

  static bool IsLead(std::uint32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
  static bool IsTrail(std::uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

  bool Escape() {
    ++cursor;
    const wchar_t kind = Peek();
    if (kind != L'u') {
      if (std::wstring_view(L"\"\\/bfnrt").find(kind) == std::wstring_view::npos) return false;
      ++cursor;
      return true;
    }
    const std::optional<std::uint32_t> unit = Hex4();
    if (!unit || IsTrail(*unit)) return false;
    if (!IsLead(*unit)) return true;
    if (!Take(L'\\')) return false;
    const std::optional<std::uint32_t> trail = Hex4();
    return trail && IsTrail(*trail);
  }

  // The unit of an escape whose "u" comes next.
  std::optional<std::uint32_t> Hex4() {
    if (end - cursor < 5 || *cursor != L'u') return std::nullopt;
    std::uint32_t unit = 0;
    for (int i = 1; i <= 4; ++i) {
      const wchar_t digit = cursor[i];
      unit <<= 4U;
      if (digit >= L'0' && digit <= L'9') {
        unit |= static_cast<std::uint32_t>(digit - L'0');
      } else if (digit >= L'a' && digit <= L'f') {
        unit |= static_cast<std::uint32_t>(digit - L'a' + 10);
      } else if (digit >= L'A' && digit <= L'F') {
        unit |= static_cast<std::uint32_t>(digit - L'A' + 10);
      } else {
        return std::nullopt;
      }
    }
    cursor += 5;
    return unit;
  }

  bool SkipDigits() {
    const wchar_t* const begin = cursor;
    while (cursor != end && *cursor >= L'0' && *cursor <= L'9') ++cursor;
    return cursor != begin;
  }

  bool Digits(Token& token) {
    const wchar_t* const begin = cursor;
    Take(L'-');
    if (!Take(L'0') && !SkipDigits()) return false;
    if (Take(L'.') && !SkipDigits()) return false;
    if (Take(L'e') || Take(L'E')) {
      if (!Take(L'+')) Take(L'-');
      if (!SkipDigits()) return false;
    }
    token.spelling = {begin, static_cast<std::size_t>(cursor - begin)};
    return true;
  }

  const wchar_t* cursor;
  const wchar_t* end;
  Handler& handler;
  std::size_t limit;
  std::size_t depth = 0;
  std::array<Level, kMaxListNesting> levels;  // only the first `depth` are ever read
};

}  // namespace Vx::Json
