#include "events/delivery_rules.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr int kMin = std::numeric_limits<int>::min();
constexpr int kMax = std::numeric_limits<int>::max();

TEST(LeadingInteger, ReadsTheWholeLeadingNumberAndNoMore) {
  const struct {
    std::wstring text;
    std::optional<int> value;
  } cases[] = {
      {L"0", 0},
      {L"10", 10},
      {L"-3", -3},
      {L"+7", 7},
      {L" \t\r\n\v\f5", 5},
      {L"5 seconds", 5},
      {L"5.9", 5},
      {L"0x10", 0},
      {L"2147483647", kMax},
      {L"2147483648", std::nullopt},
      {L"-2147483648", kMin},
      {L"-2147483649", std::nullopt},
      {L"18446744073709551617", std::nullopt},  // one beyond 64 bits
      {std::wstring(100000, L'9'), std::nullopt},
      {std::wstring(100000, L'0') + L"4", 4},
      {L"", std::nullopt},
      {L"  ", std::nullopt},
      {L"-", std::nullopt},
      {L"+-5", std::nullopt},
      {L"- 5", std::nullopt},
      {L"five", std::nullopt},
      {std::wstring{L'\0', L'5'}, std::nullopt},
      {L"\u0665", std::nullopt},  // a digit of another script
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.text.substr(0, 40)));
    EXPECT_EQ(LeadingInteger(c.text), c.value);
  }
}

TEST(ElapsedMilliseconds, IsTheAbsoluteDifferenceIn32Bits) {
  static constexpr struct {
    const char* name;
    std::uint64_t start;
    std::uint64_t now;
    std::int64_t elapsed;
  } kCases[] = {
      {"none", 1000, 1000, 0},
      {"ten seconds", 1000, 11000, 10000},
      {"the lower half wraps on the way", 0xFFFFFFF0, 0x100000010, 0x20},
      {"a clock that went back", 5000, 1000, 4000},
      {"24.8 days", 0, 0x7FFFFFFF, 0x7FFFFFFF},
      {"the one value without a positive twin", 0, 0x80000000, 0x80000000},
      {"beyond it", 0, 0x80000001, 0x7FFFFFFF},
      {"49.7 days", 0, 0x100000007, 7},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(ElapsedMilliseconds(c.start, c.now), c.elapsed);
  }
}

TEST(ElapsedUntilStandby, IsNeverUnder2001) {
  EXPECT_EQ(ElapsedUntilStandby(100, 400), 2001);
  EXPECT_EQ(ElapsedUntilStandby(0, 2000), 2001);
  EXPECT_EQ(ElapsedUntilStandby(0, 2002), 2002);
}

TEST(IsOverdue, ToleratesTwoSecondsEitherWay) {
  static constexpr struct {
    const char* name;
    int delay;
    std::int64_t elapsed;
    bool overdue;
  } kCases[] = {
      {"no delay, whatever has passed", 0, 999999, false},
      {"in time", 10, 10000, false},
      {"two seconds late", 10, 12000, false},
      {"a moment later", 10, 12001, true},
      {"two seconds early", 10, 8000, false},
      {"a moment earlier", 10, 7999, true},
      {"minus one, not waited for", -1, 0, false},
      {"minus two", -2, 0, false},
      {"minus three", -3, 0, true},
      {"the longest delay, waited out", kMax, std::int64_t{kMax} * 1000, false},
      {"the longest delay, as 32 bits measure it", kMax, 1000, true},
      {"the most negative", kMin, 0, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(IsOverdue(c.delay, c.elapsed), c.overdue);
  }
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
