// RationalTime and the small value types the editing model is made of.
#include "model/SpeedSegment.h"

#include <gtest/gtest.h>

#include <limits>
#include <regex>
#include <tuple>

namespace vantrix {
namespace {

using RT = RationalTime;
constexpr std::int64_t k2p62 = std::int64_t{1} << 62, kMax = std::numeric_limits<std::int64_t>::max();
RT to(RT t, std::int64_t timescale) { return t.convertedToTimescale(timescale); }

// Order and equality by the exact instant (products beyond 64 bits near the limits); equal instants hash equally.
TEST(RationalTime, ExactComparisonHashingAndArithmetic) {
  const std::tuple<RT, RT, int> ordered[] = {
      {{1, 2}, {2, 4}, 0}, {{1, 2}, {45000, 90000}, 0}, {{0, 1}, {0, 90000}, 0}, {{-3, 6}, {-1, 2}, 0},
      {{kMax, kMax}, {1, 1}, 0}, {{k2p62, 90000}, {k2p62 / 2, 45000}, 0}, {{1, 3}, {1, 2}, -1},
      {{-1, 3}, {0, 1}, -1}, {{-1, 2}, {-1, 3}, -1}, {{-kMax, 1}, {kMax, 1}, -1}, {{kMax - 1, kMax}, {kMax, kMax}, -1},
      {{k2p62 + 1, 2}, {k2p62, 1}, -1}, {{k2p62 - 1, 90001}, {k2p62 - 1, 90000}, -1}};
  for (const auto& [a, b, order] : ordered) {
    EXPECT_EQ(std::tuple(a <=> b, b <=> a, a == b), std::tuple(order <=> 0, 0 <=> order, order == 0))
        << a.toString() << " vs " << b.toString();
    EXPECT_TRUE(order != 0 || std::hash<RT>{}(a) == std::hash<RT>{}(b)) << "hashes differ for " << a.toString();
  }
  // + and - work at the least common timescale and never reduce; conversion rounds half away from zero.
  const std::tuple<RT, std::int64_t, std::int64_t> cases[] = {
      {RT(1, 2) + RT(1, 3), 5, 6}, {RT(1, 2) + RT(1, 2), 2, 2}, {RT(1, 2) - RT(1, 3), 1, 6},
      {RT(5, 6) - RT(1, 4), 7, 12}, {RT(30, 600) + RT(1, 90000), 4501, 90000},
      {RT(k2p62, 1) + RT(k2p62 - 1, 1), kMax, 1}, {to({1, 3}, 2), 1, 2}, {to({1, 4}, 2), 1, 2},
      {to({-1, 4}, 2), -1, 2}, {to({2, 3}, 1), 1, 1}, {to({-2, 3}, 1), -1, 1}, {to({1, 5}, 2), 0, 2},
      {to({7, 5}, 5), 7, 5}, {to({1, 7}, 90000), 12857, 90000}, {to({5, 180000}, 90000), 3, 90000},
      {to({-5, 180000}, 90000), -3, 90000}, {RT::fromMediaTime({1200, 600, true}), 1200, 600}};
  for (const auto& [got, value, timescale] : cases)
    EXPECT_EQ(std::pair(got.value(), got.timescale()), std::pair(value, timescale));
  EXPECT_EQ(RT(1200, 600).toMediaTime(), (MediaTime{1200, 600, true}));
  EXPECT_EQ(RT(3, 4294967296LL).toMediaTime(), (MediaTime{1, 2147483647, true}));  // 1.49999 ticks at INT32_MAX
}

TEST(RationalTimeDeathTest, ArithmeticFaultsStopTheProcess) {
  for (std::int64_t n : {0, -90000}) EXPECT_DEATH((void)to({1, 3}, n), "timescale below 1");
  EXPECT_DEATH((void)(RT(1, kMax) + RT(1, kMax - 1)), "common timescale overflows");
  EXPECT_DEATH((void)(RT(kMax, 1) + RT(1, 1)), "addition overflows");
  EXPECT_DEATH((void)(RT(-kMax, 1) - RT(2, 1)), "subtraction overflows");
  EXPECT_DEATH((void)to({kMax, 2}, 3), "conversion overflows");
  EXPECT_DEATH((void)RT(1, kMax).dividedBy(2), "scaled timescale overflows");
  EXPECT_DEATH((void)RT::fromMediaTime({1, 600, false}), "non-numeric media time");
  EXPECT_DEATH((void)std::hash<RT>{}(RT(std::numeric_limits<std::int64_t>::min(), 1)), "INT64_MIN");
}

TEST(ValueTypes, SpeedsUuidsAndSegments) {
  EXPECT_EQ(kAllSpeeds, (std::array{Speed::x2, Speed::x4, Speed::x8, Speed::x16}));
  for (std::int64_t raw : {2, 4, 8, 16}) EXPECT_EQ(speedFromRawValue(raw).transform(multiplier), raw);
  for (std::int64_t raw : {0, 1, 3, 6, 32, -2, 258}) EXPECT_FALSE(speedFromRawValue(raw)) << raw;
  // Random ids: version 4 in upper-case text that parses back; parsing takes either case and nothing malformed.
  const Uuid id = Uuid::random();
  EXPECT_TRUE(std::regex_match(id.toString(), std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-"
                                                         "[0-9A-F]{12}")));
  EXPECT_EQ(Uuid::parse(id.toString()), id);
  EXPECT_EQ(Uuid::parse("6f1c2a9e-3b7d-4c55-9a0e-2d4b8f61c7a3")->toString(), "6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3");
  for (const char* bad : {"", "6F1C2A9E3B7D4C559A0E2D4B8F61C7A3", "GF1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3",
                          "6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A", "6F1C2A9E-3B7D4-C55-9A0E-2D4B8F61C7A3"})
    EXPECT_FALSE(Uuid::parse(bad)) << bad;
  // Segments: a positive length; equality and hashing by id, speed and exact bounds.
  EXPECT_FALSE(SpeedSegment::make({1, 2}, {2, 4}, Speed::x4));
  const SpeedSegment a{id, {1, 2}, {1, 1}, Speed::x4}, same{id, {2, 4}, {2, 2}, Speed::x4};
  EXPECT_EQ(a, same);
  EXPECT_EQ(std::hash<SpeedSegment>{}(a), std::hash<SpeedSegment>{}(same));
  EXPECT_NE(a, (SpeedSegment{Uuid::random(), {1, 2}, {1, 1}, Speed::x4}));
  EXPECT_NE(a, (SpeedSegment{id, {1, 2}, {1, 1}, Speed::x8}));
  EXPECT_NE(a, (SpeedSegment{id, {1, 3}, {1, 1}, Speed::x4}));
}

}  // namespace
}  // namespace vantrix
