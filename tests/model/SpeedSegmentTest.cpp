#include "model/SpeedSegment.h"

#include <gtest/gtest.h>

#include <regex>
#include <unordered_set>

namespace vantrix {
namespace {

TEST(Speed, OnlyTheFourFactorsExistInOrder) {
  EXPECT_EQ(kAllSpeeds, (std::array{Speed::x2, Speed::x4, Speed::x8, Speed::x16}));
  for (std::int64_t raw : {2, 4, 8, 16}) {
    ASSERT_TRUE(speedFromRawValue(raw).has_value()) << raw;
    EXPECT_EQ(multiplier(*speedFromRawValue(raw)), raw);
  }
  for (std::int64_t raw : {0, 1, 3, 6, 32, -2, 256 + 2}) EXPECT_FALSE(speedFromRawValue(raw)) << raw;
}

TEST(Uuid, RandomIdsAreVersion4UpperCaseAndRoundTripThroughText) {
  const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::unordered_set<Uuid> seen;
  for (int i = 0; i < 1000; ++i) {
    const Uuid id = Uuid::random();
    const std::string text = id.toString();
    EXPECT_TRUE(std::regex_match(text, form)) << text;
    EXPECT_EQ(Uuid::parse(text), id);
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(Uuid, ParsingAcceptsEitherCaseAndRejectsMalformedText) {
  const auto upper = Uuid::parse("6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3");
  ASSERT_TRUE(upper);
  EXPECT_EQ(Uuid::parse("6f1c2a9e-3b7d-4c55-9a0e-2d4b8f61c7a3"), upper);
  EXPECT_EQ(upper->toString(), "6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3");
  for (const char* bad : {"", "6F1C2A9E3B7D4C559A0E2D4B8F61C7A3", "6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A",
                          "6F1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3 ", "6F1C2A9E-3B7D-4C55-9A0E_2D4B8F61C7A3",
                          "GF1C2A9E-3B7D-4C55-9A0E-2D4B8F61C7A3", "6F1C2A9E-3B7D4-C55-9A0E-2D4B8F61C7A3"})
    EXPECT_FALSE(Uuid::parse(bad)) << bad;
}

TEST(SpeedSegment, CheckedConstructionNeedsAPositiveLength) {
  const struct {
    RationalTime start, end;
    bool made;
  } cases[] = {
      {{1, 2}, {1, 1}, true}, {{1, 2}, {1, 2}, false}, {{1, 2}, {2, 4}, false},
      {{2, 1}, {1, 1}, false}, {{-1, 1}, {0, 1}, true},
  };
  for (const auto& c : cases)
    EXPECT_EQ(SpeedSegment::make(c.start, c.end, Speed::x4).has_value(), c.made)
        << c.start.toString() << ".." << c.end.toString();
}

TEST(SpeedSegment, EqualityAndHashingAreByIdAndExactBounds) {
  const Uuid id = Uuid::random();
  const SpeedSegment a{id, {1, 2}, {1, 1}, Speed::x4};
  const SpeedSegment b{id, {2, 4}, {2, 2}, Speed::x4};
  EXPECT_EQ(a, b);
  EXPECT_EQ(std::hash<SpeedSegment>{}(a), std::hash<SpeedSegment>{}(b));
  EXPECT_NE(a, (SpeedSegment{Uuid::random(), {1, 2}, {1, 1}, Speed::x4}));
  EXPECT_NE(a, (SpeedSegment{id, {1, 2}, {1, 1}, Speed::x8}));
  EXPECT_NE(a, (SpeedSegment{id, {1, 3}, {1, 1}, Speed::x4}));
}

}  // namespace
}  // namespace vantrix
