#include "security/pinned_key_text.h"

namespace Vx::Tessel::Security {

namespace {

// SEQUENCE of 266 bytes, INTEGER of 257 bytes with its sign byte; then INTEGER 65537.
constexpr std::string_view kKeyBegin = "30 82 01 0a 02 82 01 01 00";
constexpr std::string_view kKeyEnd = "02 03 01 00 01";
constexpr std::string_view kDigits = "0123456789abcdef";
constexpr std::string_view kBlanks = " \t";

// The part of a line that can hold a key: without its comment, its CR and, before a comment, the
// blanks that set the comment off.
std::string_view KeyPart(std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  const auto comment = line.find('#');
  const bool commented = comment != std::string_view::npos;
  if (commented) line = line.substr(0, comment);
  const auto last = line.find_last_not_of(kBlanks);
  if (last == std::string_view::npos) return {};
  return commented ? line.substr(0, last + 1) : line;
}

}  // namespace

std::string FormatPublicKey(std::span<const std::byte> der) {
  std::string text;
  text.reserve(der.size() * 3);
  for (const std::byte byte : der) {
    if (!text.empty()) text += ' ';
    text += kDigits[std::to_integer<std::size_t>(byte) >> 4];
    text += kDigits[std::to_integer<std::size_t>(byte) & 15];
  }
  return text;
}

bool IsPinnedKey(std::string_view text) noexcept {
  if (text.size() != kPinnedKeyLength) return false;
  if (!text.starts_with(kKeyBegin) || !text.ends_with(kKeyEnd)) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool separator = i % 3 == 2;
    if (separator ? text[i] != ' ' : kDigits.find(text[i]) == std::string_view::npos) return false;
  }
  return true;
}

PinnedKeyFile ParsePinnedKeys(std::string_view content) {
  PinnedKeyFile file;
  for (std::size_t number = 1; !content.empty(); ++number) {
    const auto end = content.find('\n');
    const std::string_view key = KeyPart(content.substr(0, end));
    content.remove_prefix(end == std::string_view::npos ? content.size() : end + 1);
    if (key.empty()) continue;
    if (!IsPinnedKey(key)) {
      file.badLine = number;
      return file;
    }
    file.keys.emplace_back(key);
  }
  return file;
}

}  // namespace Vx::Tessel::Security
