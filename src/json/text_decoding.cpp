#include "json/text_decoding.h"

#include <cstdint>

#include "json/utf8.h"

namespace Vx::Json {

namespace {

bool StartsWith(std::span<const std::byte> content, std::initializer_list<std::uint8_t> mark) {
  if (content.size() < mark.size()) return false;
  std::size_t at = 0;
  for (const std::uint8_t byte : mark) {
    if (content[at++] != std::byte{byte}) return false;
  }
  return true;
}

std::wstring FromUtf16(std::span<const std::byte> bytes, std::size_t lowByte) {
  std::wstring text;
  text.reserve(bytes.size() / 2);
  for (std::size_t at = 0; at + 1 < bytes.size(); at += 2) {
    const auto low = std::to_integer<unsigned>(bytes[at + lowByte]);
    const auto high = std::to_integer<unsigned>(bytes[at + 1 - lowByte]);
    text += static_cast<wchar_t>(high << 8 | low);
  }
  return text;
}

}  // namespace

std::optional<std::wstring> DecodeText(std::span<const std::byte> content) {
  if (StartsWith(content, {0xEF, 0xBB, 0xBF})) {
    const auto text = content.subspan(3);
    return ToWide({reinterpret_cast<const char*>(text.data()), text.size()});
  }
  if (StartsWith(content, {0xFF, 0xFE})) return FromUtf16(content.subspan(2), 0);
  if (StartsWith(content, {0xFE, 0xFF})) return FromUtf16(content.subspan(2), 1);
  return std::nullopt;
}

}  // namespace Vx::Json
