#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "json/json_text.h"

namespace Vx::Json {

// A code unit as a number without sign, whatever the width of wchar_t.
using Unit = std::make_unsigned_t<wchar_t>;

inline constexpr Unit kFirstSurrogate = 0xD800;
inline constexpr Unit kFirstTrail = 0xDC00;

constexpr bool IsLead(Unit unit) {
  return unit >= kFirstSurrogate && unit < kFirstTrail;
}

// A text that is parsed where it stands: strings are unescaped in place, so that they need no
// second copy. As rapidjson's own stream of this kind, but the ordinary units of a string move on
// many at a time, where the reader would take each by itself.
class InPlaceStream {
 public:
  using Ch = wchar_t;

  // `text` ends in a NUL, at `textEnd`.
  InPlaceStream(wchar_t* text, const wchar_t* textEnd) : from(text), begin(text), end(textEnd) {}

  wchar_t Peek() const { return *from; }
  wchar_t Take() { return *from++; }
  std::size_t Tell() const { return static_cast<std::size_t>(from - begin); }
  const wchar_t* Here() const { return from; }

  wchar_t* PutBegin() { return to = from; }
  void Put(wchar_t unit) {
    *to++ = unit;
    // No run follows the NUL that ends a string, nor a surrogate that came by an escape: its trail
    // is put next.
    if (unit != L'\0' && !IsLead(static_cast<Unit>(unit)) && from >= nextRun) MoveRuns();
  }
  std::size_t PutEnd(const wchar_t* start) { return static_cast<std::size_t>(to - start); }
  void Flush() {}

 private:
  static constexpr std::ptrdiff_t kRun =
      32;  // short enough for common texts, too long to be unrolled

  void MoveRuns() {
    while (end - from >= kRun && IsOrdinary(from)) {
      std::memmove(to, from, kRun * sizeof(wchar_t));
      from += kRun;
      to += kRun;
    }
    nextRun = from + kRun;  // no other attempt on the units that held this one up
  }

  // Whether the next kRun units neither end the string nor begin an escape nor are refused in it.
  static bool IsOrdinary(const wchar_t* units) {
    Unit special = 0;
    for (std::ptrdiff_t i = 0; i < kRun; ++i) {
      const auto unit = static_cast<Unit>(units[i]);
      special |= static_cast<Unit>(unit < 0x20) | static_cast<Unit>(unit == L'"') |
                 static_cast<Unit>(unit == L'\\');
    }
    return special == 0;
  }

  wchar_t* from;
  wchar_t* to = nullptr;
  const wchar_t* begin;
  const wchar_t* end;
  const wchar_t* nextRun = nullptr;
};

}  // namespace Vx::Json

// The reader may work on a copy of it, which keeps its pointers in registers.
template <>
struct rapidjson::StreamTraits<Vx::Json::InPlaceStream> {
  enum { copyOptimization = 1 };
};
