#include "json/utf8.h"

#include <cstdint>

namespace Vx::Json {

namespace {

constexpr std::uint32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, std::uint32_t point) {
  if (point < 0x80) {
    out.push_back(static_cast<char>(point));
    return;
  }
  const unsigned trails = point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
  static constexpr std::uint32_t kMarks[] = {0, 0xC0, 0xE0, 0xF0};
  out.push_back(static_cast<char>(kMarks[trails] | point >> 6U * trails));
  for (unsigned left = trails; left-- > 0;) {
    out.push_back(static_cast<char>(0x80U | (point >> 6U * left & 0x3FU)));
  }
}

void AppendWide(std::wstring& out, std::uint32_t point) {
  if (point < 0x10000) {
    out.push_back(static_cast<wchar_t>(point));
    return;
  }
  out.push_back(static_cast<wchar_t>(0xD800U + ((point - 0x10000U) >> 10U)));
  out.push_back(static_cast<wchar_t>(0xDC00U + ((point - 0x10000U) & 0x3FFU)));
}

struct Sequence {
  std::size_t length;  // zero if invalid
  std::uint32_t point;
};

// Reads the sequence at the front of `text`, which must not be empty.
Sequence FirstSequence(std::string_view text) {
  const auto at = [text](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = at(0);
  if (lead < 0x80) return {1, lead};
  std::size_t length = 0;
  std::uint32_t smallest = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    smallest = 0x80;
  } else if ((lead & 0xF0U) == 0xE0U) {
    length = 3;
    smallest = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    smallest = 0x10000;
  }
  if (length == 0 || text.size() < length) return {0, 0};
  std::uint32_t point = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((at(i) & 0xC0U) != 0x80U) return {0, 0};
    point = point << 6U | (at(i) & 0x3FU);
  }
  const bool valid = point >= smallest && point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
  return {valid ? length : 0, point};
}

std::wstring FromUtf16(std::string_view bytes, std::size_t lowByte) {
  std::wstring text;
  text.reserve(bytes.size() / 2);
  for (std::size_t at = 0; at + 1 < bytes.size(); at += 2) {
    const auto low = static_cast<std::uint8_t>(bytes[at + lowByte]);
    const auto high = static_cast<std::uint8_t>(bytes[at + 1 - lowByte]);
    text += static_cast<wchar_t>(high << 8 | low);
  }
  return text;
}

}  // namespace

std::string ToUtf8(std::wstring_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto unit = static_cast<std::uint32_t>(text[i]);
    if (unit < 0xD800 || (unit > 0xDFFF && unit < 0x10000)) {
      AppendUtf8(out, unit);
      continue;
    }
    const std::uint32_t next = i + 1 < text.size() ? static_cast<std::uint32_t>(text[i + 1]) : 0;
    if (unit <= 0xDBFF && next >= 0xDC00 && next <= 0xDFFF) {
      AppendUtf8(out, 0x10000 + ((unit - 0xD800) << 10U) + (next - 0xDC00));
      ++i;
    } else {
      AppendUtf8(out, kReplacement);
    }
  }
  return out;
}

std::wstring ToWide(std::string_view text) {
  std::wstring out;
  out.reserve(text.size());
  while (!text.empty()) {
    const Sequence sequence = FirstSequence(text);
    AppendWide(out, sequence.length == 0 ? kReplacement : sequence.point);
    text.remove_prefix(sequence.length == 0 ? 1 : sequence.length);
  }
  return out;
}

std::optional<std::wstring> DecodeText(std::span<const std::byte> content) {
  const std::string_view text(reinterpret_cast<const char*>(content.data()), content.size());
  if (text.starts_with("\xEF\xBB\xBF")) return ToWide(text.substr(3));
  if (text.starts_with("\xFF\xFE")) return FromUtf16(text.substr(2), 0);
  if (text.starts_with("\xFE\xFF")) return FromUtf16(text.substr(2), 1);
  return std::nullopt;
}

bool IsUtf8(std::string_view text) noexcept {
  while (!text.empty()) {
    const std::size_t length = FirstSequence(text).length;
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace Vx::Json
