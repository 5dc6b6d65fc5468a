#include "model/RationalTime.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <unordered_set>

namespace vantrix {
namespace {

using RT = RationalTime;
constexpr std::int64_t k2p62 = std::int64_t{1} << 62;
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

void expectSameRepresentation(RT actual, std::int64_t value, std::int64_t timescale) {
  EXPECT_EQ(actual.value(), value) << actual.toString();
  EXPECT_EQ(actual.timescale(), timescale) << actual.toString();
}

TEST(RationalTime, EqualInstantsCompareAndHashEquallyWhateverTheRepresentation) {
  const struct {
    RT a, b;
  } equal[] = {
      {{1, 2}, {2, 4}},
      {{1, 2}, {45000, 90000}},
      {{0, 1}, {0, 90000}},
      {{-3, 6}, {-1, 2}},
      {{k2p62, 90000}, {k2p62 / 2, 45000}},
      {{kMax, kMax}, {1, 1}},
  };
  for (const auto& c : equal) {
    EXPECT_EQ(c.a, c.b) << c.a.toString() << " vs " << c.b.toString();
    EXPECT_FALSE(c.a < c.b);
    EXPECT_FALSE(c.a > c.b);
    EXPECT_EQ(std::hash<RT>{}(c.a), std::hash<RT>{}(c.b)) << c.a.toString();
  }
  std::unordered_set<RT> set{RT{1, 2}, RT{2, 4}, RT{3, 6}, RT{1, 3}};
  EXPECT_EQ(set.size(), 2u);
}

TEST(RationalTime, OrderingIsExactNearTheLimits) {
  const struct {
    RT smaller, larger;
  } ordered[] = {
      {{1, 3}, {1, 2}},
      {{k2p62 - 1, 90000}, {k2p62, 90000}},
      {{k2p62 - 1, 90001}, {k2p62 - 1, 90000}},  // products beyond 64 bits
      {{kMax - 1, kMax}, {kMax, kMax}},
      {{-kMax, 1}, {kMax, 1}},
      {{-1, 3}, {0, 1}},
      {{-1, 2}, {-1, 3}},
  };
  for (const auto& c : ordered) {
    EXPECT_LT(c.smaller, c.larger) << c.smaller.toString() << " < " << c.larger.toString();
    EXPECT_LE(c.smaller, c.larger);
    EXPECT_GT(c.larger, c.smaller);
    EXPECT_GE(c.larger, c.smaller);
    EXPECT_NE(c.smaller, c.larger);
  }
}

TEST(RationalTime, AdditionAndSubtractionUseTheLeastCommonTimescaleAndNeverReduce) {
  const struct {
    RT a, b;
    bool add;
    std::int64_t value, timescale;
  } cases[] = {
      {{1, 2}, {1, 3}, true, 5, 6},       {{1, 2}, {1, 2}, true, 2, 2},
      {{0, 1}, {7, 90000}, true, 7, 90000}, {{1, 2}, {1, 3}, false, 1, 6},
      {{30, 600}, {1, 90000}, true, 4501, 90000}, {{5, 6}, {1, 4}, false, 7, 12},
      {{k2p62, 1}, {k2p62 - 1, 1}, true, kMax, 1},
  };
  for (const auto& c : cases) expectSameRepresentation(c.add ? c.a + c.b : c.a - c.b, c.value, c.timescale);
}

TEST(RationalTime, ConversionRoundsHalfAwayFromZero) {
  const struct {
    RT from;
    std::int64_t to, value;
  } cases[] = {
      {{1, 3}, 2, 1},           {{1, 4}, 2, 1},           {{-1, 4}, 2, -1},
      {{1, 3}, 90000, 30000},   {{1, 7}, 90000, 12857},   {{5, 180000}, 90000, 3},
      {{-5, 180000}, 90000, -3}, {{1, 600}, 90000, 150},   {{7, 5}, 5, 7},
      {{2, 3}, 1, 1},           {{-2, 3}, 1, -1},         {{1, 5}, 2, 0},
  };
  for (const auto& c : cases) expectSameRepresentation(c.from.convertedToTimescale(c.to), c.value, c.to);
}

TEST(RationalTime, MediaTimeConversionsAreExactAndFitTimescalesTo32Bits) {
  expectSameRepresentation(RT::fromMediaTime({1200, 600, true}), 1200, 600);
  EXPECT_EQ(RT(1200, 600).toMediaTime(), (MediaTime{1200, 600, true}));
  // A timescale above INT32_MAX is rescaled to INT32_MAX with rounding.
  const MediaTime big = RT(3, 4294967296LL).toMediaTime();  // 3 / 2^32 s
  EXPECT_EQ(big.timescale, 2147483647);
  EXPECT_EQ(big.value, 1);  // 1.4999999997 ticks rounds to 1
  EXPECT_TRUE(big.valid);
}

using RationalTimeDeathTest = ::testing::Test;

TEST(RationalTimeDeathTest, ArithmeticFaultsStopTheProcess) {
  EXPECT_DEATH((void)RT(1, 3).convertedToTimescale(0), "timescale below 1");
  EXPECT_DEATH((void)RT(1, 3).convertedToTimescale(-90000), "timescale below 1");
  EXPECT_DEATH((void)(RT(1, kMax) + RT(1, kMax - 1)), "common timescale overflows");
  EXPECT_DEATH((void)(RT(kMax, 1) + RT(1, 1)), "addition overflows");
  EXPECT_DEATH((void)(RT(-kMax, 1) - RT(2, 1)), "subtraction overflows");
  EXPECT_DEATH((void)RT(kMax, 2).convertedToTimescale(3), "conversion overflows");
  EXPECT_DEATH((void)RT(1, kMax).dividedBy(2), "scaled timescale overflows");
  EXPECT_DEATH((void)RT::fromMediaTime({1, 600, false}), "non-numeric media time");
  EXPECT_DEATH((void)std::hash<RT>{}(RT(std::numeric_limits<std::int64_t>::min(), 1)), "INT64_MIN");
}

}  // namespace
}  // namespace vantrix
