#include "model/SpeedTimeline.h"

#include <gtest/gtest.h>

namespace vantrix {
namespace {

using E = SpeedTimelineError;
RationalTime s(std::int64_t seconds) { return RationalTime::seconds(seconds); }

// Trim 0..10 s of a 10 s source, with a segment at 2..4 s (x2) unless told otherwise.
SpeedTimeline withSegment(RationalTime start = s(2), RationalTime end = s(4), Speed speed = Speed::x2) {
  SpeedTimeline t(s(10));
  EXPECT_TRUE(t.addSegment(start, end, speed));
  return t;
}

TEST(SpeedTimeline, RefusedEditsReportTheFirstFailingCheckAndChangeNothing) {
  const Uuid unknown = Uuid::random();
  const struct {
    const char* what;
    std::function<std::expected<void, E>(SpeedTimeline&)> edit;
    E expected;
  } cases[] = {
      {"empty trim", [](auto& t) { return t.setTrim(s(5), s(5)); }, E::invalidTrim},
      {"negative trim start", [](auto& t) { return t.setTrim(s(-1), s(5)); }, E::invalidTrim},
      {"trim past the source", [](auto& t) { return t.setTrim(s(0), {11, 1}); }, E::invalidTrim},
      {"reversed trim", [](auto& t) { return t.setTrim(s(6), s(5)); }, E::invalidTrim},
      {"empty range outside the trim", [](auto& t) { return t.addSegment(s(50), s(50), Speed::x4); },
       E::invalidRange},
      {"empty range, different representations", [](auto& t) { return t.addSegment({1, 2}, {2, 4}, Speed::x4); },
       E::invalidRange},
      {"reversed and overlapping", [](auto& t) { return t.addSegment(s(4), s(3), Speed::x4); }, E::invalidRange},
      {"before the trim and overlapping", [](auto& t) { return t.addSegment(s(-1), s(3), Speed::x4); },
       E::outsideTrim},
      {"past the trim end", [](auto& t) { return t.addSegment(s(9), s(11), Speed::x4); }, E::outsideTrim},
      {"overlapping", [](auto& t) { return t.addSegment(s(3), s(5), Speed::x4); }, E::overlap},
      {"containing", [](auto& t) { return t.addSegment(s(1), s(5), Speed::x4); }, E::overlap},
      {"update of an unknown id with reversed bounds",
       [&](auto& t) { return t.updateSegment(unknown, s(6), s(5)); }, E::noSuchSegment},
      {"update to reversed bounds",
       [](auto& t) { return t.updateSegment(t.segments()[0].id, s(4), s(2)); }, E::invalidRange},
      {"update outside the trim",
       [](auto& t) { return t.updateSegment(t.segments()[0].id, s(8), s(12)); }, E::outsideTrim},
      {"speed of an unknown id", [&](auto& t) { return t.setSpeed(Speed::x8, unknown); }, E::noSuchSegment},
  };
  for (const auto& c : cases) {
    SpeedTimeline t = withSegment();
    const SpeedTimeline before = t;
    const auto result = c.edit(t);
    ASSERT_FALSE(result) << c.what;
    EXPECT_EQ(result.error(), c.expected) << c.what << ": got " << toString(result.error());
    EXPECT_EQ(t, before) << c.what;
  }
}

TEST(SpeedTimeline, UpdateOverlappingANeighbourIsRefused) {
  SpeedTimeline t = withSegment(s(2), s(4));
  ASSERT_TRUE(t.addSegment(s(5), s(7), Speed::x8));
  const SpeedTimeline before = t;
  EXPECT_EQ(t.updateSegment(t.segments()[0].id, s(2), s(6)).error(), E::overlap);
  EXPECT_EQ(t, before);
}

TEST(SpeedTimeline, SegmentsMayTouchAndStaySorted) {
  SpeedTimeline t = withSegment(s(2), s(4));
  ASSERT_TRUE(t.addSegment(s(4), s(6), Speed::x4));
  ASSERT_TRUE(t.addSegment(s(1), s(2), Speed::x8));
  ASSERT_TRUE(t.addSegment({18, 2}, {10, 1}, Speed::x16));  // 9 s in another representation
  ASSERT_EQ(t.segments().size(), 4u);
  EXPECT_EQ(t.segments()[0].start, s(1));
  EXPECT_EQ(t.segments()[1].start, s(2));
  EXPECT_EQ(t.segments()[2].start, s(4));
  EXPECT_EQ(t.segments()[3].start, s(9));
}

TEST(SpeedTimeline, UpdateMovesOverItsOwnExtentAndKeepsIdAndSpeed) {
  SpeedTimeline t = withSegment(s(2), s(4), Speed::x8);
  ASSERT_TRUE(t.addSegment(s(6), s(7), Speed::x2));
  const Uuid id = t.segments()[0].id;
  ASSERT_TRUE(t.updateSegment(id, s(3), s(5)));
  ASSERT_TRUE(t.updateSegment(id, {15, 2}, s(8)));  // past the other one: re-sorted to the end
  ASSERT_EQ(t.segments().size(), 2u);
  EXPECT_EQ(t.segments()[1], (SpeedSegment{id, {15, 2}, s(8), Speed::x8}));
}

TEST(SpeedTimeline, SetSpeedKeepsBoundsAndOrder) {
  SpeedTimeline t = withSegment(s(2), s(4));
  ASSERT_TRUE(t.addSegment(s(5), s(6), Speed::x2));
  const auto before = t.segments();
  ASSERT_TRUE(t.setSpeed(Speed::x16, before[1].id));
  EXPECT_EQ(t.segments()[0], before[0]);
  EXPECT_EQ(t.segments()[1], (SpeedSegment{before[1].id, s(5), s(6), Speed::x16}));
}

TEST(SpeedTimeline, TrimClipsAndDropsSegments) {
  const struct {
    RationalTime trimStart, trimEnd;
    std::optional<std::pair<RationalTime, RationalTime>> remaining;
  } cases[] = {
      {s(0), s(10), std::pair{s(2), s(6)}},
      {s(4), s(10), std::pair{s(4), s(6)}},
      {s(3), s(5), std::pair{s(3), s(5)}},
      {s(6), s(10), std::nullopt},
      {s(0), s(2), std::nullopt},
      {{4, 2}, s(10), std::pair{s(2), s(6)}},  // equal start keeps the segment's own bound
  };
  for (const auto& c : cases) {
    SpeedTimeline t = withSegment(s(2), s(6), Speed::x4);
    const Uuid id = t.segments()[0].id;
    ASSERT_TRUE(t.setTrim(c.trimStart, c.trimEnd));
    EXPECT_EQ(t.trimStart(), c.trimStart);
    EXPECT_EQ(t.trimEnd(), c.trimEnd);
    if (!c.remaining) {
      EXPECT_TRUE(t.segments().empty()) << c.trimStart.toString();
      continue;
    }
    ASSERT_EQ(t.segments().size(), 1u);
    EXPECT_EQ(t.segments()[0], (SpeedSegment{id, c.remaining->first, c.remaining->second, Speed::x4}));
  }
  // A tie keeps the segment's own representation, not the trim's.
  SpeedTimeline t = withSegment(s(2), s(6));
  ASSERT_TRUE(t.setTrim({4, 2}, s(10)));
  EXPECT_EQ(t.segments()[0].start.timescale(), 1);
}

TEST(SpeedTimeline, MapsTheWorkedExampleBothWays) {
  SpeedTimeline t = withSegment(s(2), s(6), Speed::x4);
  const struct {
    RationalTime source, output;
  } forward[] = {{s(1), s(1)}, {s(4), {5, 2}}, {s(8), s(5)}, {s(12), s(7)}, {s(-3), s(0)}, {s(6), s(3)}};
  for (const auto& c : forward) EXPECT_EQ(t.outputTimeForSource(c.source), c.output) << c.source.toString();
  const struct {
    RationalTime output, source;
  } backward[] = {{{5, 2}, s(4)}, {s(5), s(8)}, {s(-1), s(0)}, {s(9), s(10)}, {s(3), s(6)}, {s(2), s(2)}};
  for (const auto& c : backward) EXPECT_EQ(t.sourceTimeForOutput(c.output), c.source) << c.output.toString();
  EXPECT_EQ(t.outputDuration(), s(7));
}

TEST(SpeedTimeline, OutputStartsAtTheTrimStart) {
  SpeedTimeline t(s(10));
  ASSERT_TRUE(t.setTrim(s(3), s(10)));
  EXPECT_EQ(t.outputTimeForSource(s(3)), s(0));
  EXPECT_EQ(t.sourceTimeForOutput(s(0)), s(3));
  EXPECT_EQ(t.outputDuration(), s(7));
}

TEST(SpeedTimeline, OwnerRemovalDropsTheSegment) {
  SpeedTimeline t = withSegment();
  t.removeSegment(t.segments()[0].id);
  EXPECT_TRUE(t.segments().empty());
  EXPECT_EQ(toString(E::overlap), "overlap");
}

}  // namespace
}  // namespace vantrix
