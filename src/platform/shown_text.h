#pragma once

namespace Vx::Platform {

// Returns whether a character of untrusted text can start a new line, control the terminal that
// shows it, or reorder text: control characters, separators and direction marks.
constexpr bool IsUnsafeToShow(wchar_t unit) {
  return unit < 0x20 || (unit >= 0x7F && unit < 0xA0) || (unit >= 0x2028 && unit <= 0x202E) ||
         (unit >= 0x2066 && unit <= 0x2069) || unit == 0x061C || unit == 0x200E || unit == 0x200F;
}

inline constexpr wchar_t kShownInstead = 0xFFFD;

// Returns the character that a log shows for `unit` of untrusted text. White space becomes a space.
constexpr wchar_t ShownAs(wchar_t unit) {
  if (unit >= L'\t' && unit <= L'\r') return L' ';
  return IsUnsafeToShow(unit) ? kShownInstead : unit;
}

}  // namespace Vx::Platform
