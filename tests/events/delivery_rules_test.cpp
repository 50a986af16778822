#include "events/delivery_rules.h"

#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr int kMin = std::numeric_limits<int>::min();
constexpr int kMax = std::numeric_limits<int>::max();

TEST(LeadingInteger, ReadsTheWholeLeadingNumberAndNoMore) {
  constexpr std::nullopt_t none = std::nullopt;
  const std::pair<std::wstring, std::optional<int>> cases[] = {
      {L"+7", 7},
      {L" \t\r\n\v\f5", 5},
      {L"5.9", 5},
      {L"0x10", 0},
      {L"2147483647", kMax},
      {L"2147483648", none},
      {L"-2147483648", kMin},
      {L"-2147483649", none},
      {L"18446744073709551617", none},
      {std::wstring(100000, L'9'), none},
      {std::wstring(100000, L'0') + L"4", 4},
      {L"", none},
      {L"  ", none},
      {L"-", none},
      {L"+-5", none},
      {L"- 5", none},
      {std::wstring{L'\0', L'5'}, none},
      {L"\u0665", none},  // a non-ASCII digit
  };
  for (const auto& [text, value] : cases) {
    SCOPED_TRACE(testing::PrintToString(text.substr(0, 40)));
    EXPECT_EQ(LeadingInteger(text), value);
  }
}

TEST(ElapsedMilliseconds, IsTheAbsoluteDifferenceIn32Bits) {
  EXPECT_EQ(ElapsedMilliseconds(1000, 1000), 0);
  EXPECT_EQ(ElapsedMilliseconds(0xFFFFFFF0, 0x100000010), 0x20);
  EXPECT_EQ(ElapsedMilliseconds(5000, 1000), 4000);  // the clock was set back
  EXPECT_EQ(ElapsedMilliseconds(0, 0x7FFFFFFF), 0x7FFFFFFF);
  EXPECT_EQ(ElapsedMilliseconds(0, 0x80000000),
            0x80000000);  // has no positive counterpart
  EXPECT_EQ(ElapsedMilliseconds(0, 0x80000001), 0x7FFFFFFF);
  EXPECT_EQ(ElapsedMilliseconds(0, 0x100000007), 7);
}

TEST(ElapsedUntilStandby, IsNeverUnder2001) {
  EXPECT_EQ(ElapsedUntilStandby(0, 2000), 2001);
  EXPECT_EQ(ElapsedUntilStandby(0, 2002), 2002);
}

TEST(IsOverdue, ToleratesTwoSecondsEitherWay) {
  static constexpr struct {
    int delay;
    std::int64_t elapsed;
    bool overdue;
  } kCases[] = {
      {0, 999999, false}, {10, 12000, false},
      {10, 12001, true},  {10, 8000, false},
      {10, 7999, true},   {-2, 0, false},
      {-3, 0, true},      {kMax, std::int64_t{kMax} * 1000, false},
      {kMax, 1000, true},  // kMax seconds, wrapped to 32 bits
      {kMin, 0, true},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(IsOverdue(c.delay, c.elapsed), c.overdue) << c.delay << ", " << c.elapsed;
  }
}

TEST(IsTooLong, IsADelayThatIsOverdueWhenItIsOver) {
  static constexpr std::pair<int, bool> kCases[] = {
      {kMin, false}, {0, false}, {2147484, false}, {2147485, true}, {kMax, true}};
  for (const auto& [delay, tooLong] : kCases) {
    EXPECT_EQ(IsTooLong(delay), tooLong) << delay;
    const auto end = static_cast<std::uint64_t>(DelayLength(delay).count());
    EXPECT_EQ(IsOverdue(delay, ElapsedMilliseconds(0, end)), tooLong || delay < 0) << delay;
  }
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
