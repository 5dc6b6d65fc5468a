#include "model/TimelineGeometry.h"

#include <gtest/gtest.h>

namespace vantrix {
namespace {

using G = TimelineGeometry;
using Range = G::SegmentRange;
RationalTime s(std::int64_t seconds) { return RationalTime::seconds(seconds); }
SpeedSegment seg(RationalTime a, RationalTime b) { return {Uuid::random(), a, b, Speed::x4}; }

TEST(TimelineGeometry, TimeAtXRoundsHalfAwayFromZeroAndKeepsTheDurationAtTheEnd) {
  const struct {
    G geometry;
    double x;
    std::int64_t value, timescale;
  } cases[] = {
      {{300, {600, 600}}, 150, 300, 600},
      {{300, {600, 600}}, 0.25, 1, 600},  // 0.5 tick rounds up
      {{300, {600, 600}}, 0.2, 0, 600},
      {{300, {600, 600}}, 300, 600, 600},
      {{300, {600, 600}}, 1e9, 600, 600},
      {{300, {600, 600}}, 0, 0, 1},
      {{300, {600, 600}}, -5, 0, 1},
      {{0, {600, 600}}, 10, 0, 1},
      {{300, {0, 600}}, 10, 0, 1},
      {{300, {10, 1}}, 45, 2, 1},  // 1.5 rounds away from zero
  };
  for (const auto& c : cases) {
    const RationalTime t = c.geometry.timeAtX(c.x);
    EXPECT_EQ(t.value(), c.value) << c.x;
    EXPECT_EQ(t.timescale(), c.timescale) << c.x;
  }
}

TEST(TimelineGeometry, XForTimeIsClampedAndUnrounded) {
  const G g(300, {600, 600});
  const struct {
    RationalTime t;
    double x;
  } cases[] = {{{-1, 1}, 0}, {{0, 1}, 0}, {{1, 3}, 100}, {{1, 2}, 150}, {{2, 1}, 300}, {{1, 600}, 0.5}};
  for (const auto& c : cases) EXPECT_DOUBLE_EQ(g.xForTime(c.t), c.x) << c.t.toString();
  EXPECT_EQ(G(0, s(1)).xForTime({1, 2}), 0);
  EXPECT_EQ(g.rect({1, 2}, {1, 3}), (RectF{150, 0, 0, 64}));
  EXPECT_EQ(g.rect({1, 3}, {1, 2}), (RectF{100, 0, 50, 64}));
  EXPECT_EQ(G(0, s(1)).rect({1, 3}, {1, 2}), (RectF{0, 0, 0, 64}));
}

TEST(TimelineGeometry, EqualityIsByValue) {
  EXPECT_EQ(G(100, {1, 2}), G(100, {2, 4}));
  EXPECT_NE(G(100, {1, 2}), G(101, {1, 2}));
  EXPECT_EQ((Range{{1, 2}, {1, 1}}), (Range{{2, 4}, {3, 3}}));
}

TEST(TimelineGeometry, ProposedRangeIsOrderedClampedAndPushedOutOfSegments) {
  const G g(100, {100, 10});  // 10 points per second, 1/10 s resolution
  const std::vector<SpeedSegment> segments{seg(s(2), s(4)), seg(s(4), s(5)), seg(s(7), s(8))};
  const struct {
    const char* what;
    double from, to;
    RationalTime trimStart, trimEnd;
    std::optional<Range> expected;
  } cases[] = {
      {"left to right", 50, 65, s(0), s(10), Range{s(5), {65, 10}}},
      {"right to left", 65, 50, s(0), s(10), Range{s(5), {65, 10}}},
      {"starts inside, pushed past adjoining", 25, 60, s(0), s(10), Range{s(5), s(6)}},
      {"stops at the next segment", 55, 95, s(0), s(10), Range{{55, 10}, s(7)}},
      {"inside one segment", 71, 79, s(0), s(10), std::nullopt},
      {"clamped to the trim", 0, 35, s(1), s(9), Range{s(1), s(2)}},
      {"entirely before the trim", 0, 5, s(1), s(9), std::nullopt},
      {"zero length", 55, 55, s(0), s(10), std::nullopt},
  };
  for (const auto& c : cases)
    EXPECT_EQ(g.proposedRange(c.from, c.to, c.trimStart, c.trimEnd, segments), c.expected) << c.what;
  // Unsorted input gives the same answer.
  const std::vector<SpeedSegment> shuffled{segments[2], segments[1], segments[0]};
  EXPECT_EQ(g.proposedRange(25, 60, s(0), s(10), shuffled), (Range{s(5), s(6)}));
}

TEST(TimelineGeometry, ResizedRangeStopsAtNeighboursAndKeepsOneTick) {
  const G g(100, {600, 60});  // 10 s at timescale 60
  const SpeedSegment a = seg(s(2), s(4));
  const SpeedSegment b = seg(s(6), s(8));
  const std::vector<SpeedSegment> segments{a, b};
  const RationalTime tick{1, 60};
  const struct {
    const char* what;
    const SpeedSegment& segment;
    G::Edge edge;
    double x;
    RationalTime trimStart, trimEnd;
    Range expected;
  } cases[] = {
      {"end within room", a, G::Edge::end, 50, s(0), s(10), {s(2), {300, 60}}},
      {"end past the neighbour", a, G::Edge::end, 90, s(0), s(10), {s(2), s(6)}},
      {"end before the start", a, G::Edge::end, 5, s(0), s(10), {s(2), s(2) + tick}},
      {"end of the last one past the trim", b, G::Edge::end, 100, s(0), {9, 1}, {s(6), {9, 1}}},
      {"start past the neighbour", b, G::Edge::start, 10, s(0), s(10), {s(4), s(8)}},
      {"start after the end", a, G::Edge::start, 80, s(0), s(10), {s(4) - tick, s(4)}},
      {"start before the trim", a, G::Edge::start, 0, s(1), s(10), {s(1), s(4)}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(g.resizedRange(c.segment, c.edge, c.x, c.trimStart, c.trimEnd, segments, tick), c.expected)
        << c.what;
  // No room for a whole tick: the neighbour wins.
  const SpeedSegment tight = seg(s(2), {121, 60});
  const SpeedSegment next = seg({121, 60}, s(3));
  EXPECT_EQ(g.resizedRange(tight, G::Edge::end, 0, s(0), s(10), std::vector{tight, next}, {2, 60}),
            (Range{s(2), {121, 60}}));
}

TEST(TimelineGeometry, TrimmedRangeIgnoresSegmentsAndKeepsOneTick) {
  const G g(100, s(10));
  const RationalTime tick{1, 1};
  using T = G::TrimRange;
  EXPECT_EQ(g.trimmedRange(G::TrimEdge::start, 100, s(0), s(10), tick), (T{s(9), s(10)}));
  EXPECT_EQ(g.trimmedRange(G::TrimEdge::start, -20, s(3), s(10), tick), (T{s(0), s(10)}));
  EXPECT_EQ(g.trimmedRange(G::TrimEdge::start, 40, s(0), s(8), tick), (T{s(4), s(8)}));
  EXPECT_EQ(g.trimmedRange(G::TrimEdge::end, 0, s(3), s(10), tick), (T{s(3), s(4)}));
  EXPECT_EQ(g.trimmedRange(G::TrimEdge::end, 70, s(3), s(10), tick), (T{s(3), s(7)}));
  EXPECT_EQ(g.trimmedRange(G::TrimEdge::end, 0, s(10), s(10), tick), (T{s(10), s(10)}));
}

TEST(TimelineGeometry, SegmentUnderAClickIsStartInclusiveEndExclusive) {
  const std::vector<SpeedSegment> segments{seg(s(2), s(4)), seg(s(4), s(5))};
  EXPECT_EQ(G::segmentId(s(2), segments), segments[0].id);
  EXPECT_EQ(G::segmentId({8, 2}, segments), segments[1].id);
  EXPECT_EQ(G::segmentId(s(5), segments), std::nullopt);
  EXPECT_EQ(G::segmentId(s(1), {}), std::nullopt);
}

TEST(TimelineGeometry, SampleTimes) {
  const auto four = G::sampleTimes(4, s(10));
  ASSERT_EQ(four.size(), 4u);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(four[std::size_t(i)].value(), 10 * i);
    EXPECT_EQ(four[std::size_t(i)].timescale(), 4);
  }
  EXPECT_TRUE(G::sampleTimes(0, s(10)).empty());
  EXPECT_EQ(G::sampleTimes(1, s(10)), std::vector{RationalTime::zero()});
  EXPECT_EQ(G::sampleTimes(3, s(0)), std::vector{RationalTime::zero()});
  EXPECT_EQ(G::minimumLength({900, 90000}), (RationalTime{1, 90000}));
  EXPECT_EQ(G::minimumLength({0, 0}), (RationalTime{1, 1}));
}

}  // namespace
}  // namespace vantrix
