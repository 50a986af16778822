#include "json/text_decoding.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Vx::Json {

namespace {

TEST(DecodeText, FollowsTheByteOrderMark) {
  using Bytes = std::vector<std::uint8_t>;
  static const struct {
    const char* name;
    Bytes bytes;
    std::optional<std::wstring> text;
  } kCases[] = {
      {"UTF-8", {0xEF, 0xBB, 0xBF, 'a', 0xC3, 0xA4}, L"a\u00E4"},
      {"UTF-16, low byte first", {0xFF, 0xFE, 'a', 0, 0xE4, 0}, L"a\u00E4"},
      {"UTF-16, high byte first", {0xFE, 0xFF, 0, 'a', 0, 0xE4}, L"a\u00E4"},
      {"half a unit at the end", {0xFF, 0xFE, 'a', 0, 'b'}, L"a"},
      {"broken UTF-8", {0xEF, 0xBB, 0xBF, 'a', 0xC3}, L"a\uFFFD"},
      {"only the mark", {0xEF, 0xBB, 0xBF}, L""},
      {"only the UTF-16 mark", {0xFF, 0xFE}, L""},
      {"no mark", {'a', 'b'}, std::nullopt},
      {"half a mark", {0xEF, 0xBB}, std::nullopt},
      {"nothing", {}, std::nullopt},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(DecodeText(std::as_bytes(std::span(c.bytes))), c.text);
  }
}

}  // namespace

}  // namespace Vx::Json
