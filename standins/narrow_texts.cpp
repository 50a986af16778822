#include "standins/narrow_texts.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <new>

#include <windows.h>

namespace Vx::Tessel::Server::Logging {

namespace {

// In the calling convention of 64-bit Windows, each argument takes one slot of this size.
using Slot = std::uint64_t;
static_assert(sizeof(va_list) == sizeof(Slot));  // a pointer to the next slot

// The longest narrow string that is widened, in bytes. A line has less room.
constexpr std::size_t kLongest = 32768;

constexpr wchar_t kBeforeLetter[] = L"-+ #.0123456789*hlwLIjzt";

// A narrow string in a line: the position of its conversion in the format, and its argument.
struct Narrow {
  std::size_t place;
  std::size_t slot;
};

struct Line {
  Narrow narrow[8] = {};
  std::size_t narrows = 0;
  std::size_t slots = 0;  // arguments in all
};

// Finds the "%S" conversions, with any width. Ignores those after the eighth.
Line Read(const wchar_t* format) {
  Line line;
  for (const wchar_t* at = format; *at != L'\0'; ++at) {
    if (*at != L'%') continue;
    const std::size_t length = std::wcsspn(++at, kBeforeLetter);
    line.slots += static_cast<std::size_t>(std::count(at, at + length, L'*'));
    const bool plain = std::wcscspn(at, L".hlw") >= length;
    at += length;
    if (*at == L'\0') break;
    if (*at == L'%') continue;
    if (*at == L'S' && plain && line.narrows < std::size(line.narrow)) {
      line.narrow[line.narrows++] = {static_cast<std::size_t>(at - format), line.slots};
    }
    ++line.slots;
  }
  return line;
}

bool IsAscii(const char* text) {
  if (text == nullptr) return true;
  while (*text > 0) ++text;
  return *text == '\0';
}

// Replaces what is not UTF-8 with U+FFFD.
std::wstring FromUtf8(const char* text) {
  const auto size = static_cast<int>(strnlen(text, kLongest));
  std::wstring wide(static_cast<std::size_t>(size), L'\0');
  const int length = MultiByteToWideChar(CP_UTF8, 0, text, size, wide.data(), size);
  wide.resize(static_cast<std::size_t>(std::max(length, 0)));
  return wide;
}

}  // namespace

NarrowTexts::NarrowTexts(const wchar_t* lineFormat, va_list lineArguments) noexcept
    : format(lineFormat), arguments(lineArguments) {
  try {
    Widen();
  } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): the line stays as it is
  }
}

void NarrowTexts::Widen() {
  const Line line = Read(format);
  for (std::size_t i = 0; i < line.narrows; ++i) {
    const auto [place, slot] = line.narrow[i];
    const char* text = nullptr;
    std::memcpy(&text, arguments + slot * sizeof(Slot), sizeof text);
    if (IsAscii(text)) continue;
    if (newArguments.empty()) {
      texts.reserve(line.narrows);
      newFormat = format;
      newArguments.resize(line.slots);
      std::memcpy(newArguments.data(), arguments, line.slots * sizeof(Slot));
    }
    newFormat[place] = L's';
    newArguments[slot] = reinterpret_cast<Slot>(texts.emplace_back(FromUtf8(text)).c_str());
  }
  if (newArguments.empty()) return;
  format = newFormat.c_str();
  arguments = reinterpret_cast<va_list>(newArguments.data());
}

}  // namespace Vx::Tessel::Server::Logging
