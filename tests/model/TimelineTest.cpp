// SpeedTimeline (a table per rule, then random edit sequences on mixed timescales) and the strip's geometry.
#include "model/SpeedTimeline.h"
#include "model/TimelineGeometry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>

namespace vantrix {
void PrintTo(RationalTime t, std::ostream* os) { *os << t.toString(); }
namespace {

using G = TimelineGeometry;
using Range = G::SegmentRange;
using RT = RationalTime;
RT s(std::int64_t seconds) { return RT::seconds(seconds); }
SpeedSegment seg(RT a, RT b) { return {Uuid::random(), a, b, Speed::x4}; }

// A 10 s source, all of it kept, with x2 over 2..4 s and x8 over 4..7 s (touching).
SpeedTimeline twoSegments() {
  SpeedTimeline t(s(10));
  EXPECT_TRUE(t.addSegment(s(2), s(4), Speed::x2) && t.addSegment(s(4), s(7), Speed::x8));
  return t;
}

// Errors by printed name. T trim, A add, U update of the first segment, u of an unknown id, S speed of an unknown id.
// Check order: A 4..3 (reversed, overlapping), A -1..3 (before the trim, overlapping), u 6..5, A 50..50.
TEST(SpeedTimeline, RefusedEditsReportTheFirstFailingCheckAndChangeNothing) {
  const std::tuple<char, RT, RT, std::string_view> cases[] = {
      {'T', s(5), s(5), "invalidTrim"}, {'T', s(-1), s(5), "invalidTrim"}, {'T', s(0), s(11), "invalidTrim"},
      {'A', {1, 2}, {2, 4}, "invalidRange"}, {'A', s(50), s(50), "invalidRange"}, {'A', s(4), s(3), "invalidRange"},
      {'A', s(-1), s(3), "outsideTrim"}, {'A', s(9), s(11), "outsideTrim"}, {'A', s(1), s(3), "overlap"},
      {'A', s(1), s(8), "overlap"}, {'u', s(6), s(5), "noSuchSegment"}, {'U', s(4), s(2), "invalidRange"},
      {'U', s(8), s(12), "outsideTrim"}, {'U', s(2), s(5), "overlap"}, {'S', s(0), s(0), "noSuchSegment"}};
  for (const auto& [kind, a, b, expected] : cases) {
    SpeedTimeline t = twoSegments();
    const SpeedTimeline before = t;
    const Uuid id = kind == 'U' ? t.segments()[0].id : Uuid::random();
    const auto result = kind == 'T' ? t.setTrim(a, b) : kind == 'A' ? t.addSegment(a, b, Speed::x4)
                        : kind == 'S' ? t.setSpeed(Speed::x8, id) : t.updateSegment(id, a, b);
    EXPECT_EQ(result ? "accepted" : toString(result.error()), expected) << kind << a.toString();
    EXPECT_EQ(t, before) << kind << a.toString();
  }
}

TEST(SpeedTimeline, AcceptedEditsKeepSegmentsSortedWithTheirIdsAndSpeeds) {
  SpeedTimeline t = twoSegments();
  const SpeedSegment a = t.segments()[0], b = t.segments()[1];
  ASSERT_TRUE(t.addSegment({18, 2}, s(10), Speed::x16) && t.addSegment(s(1), s(2), Speed::x4));
  const SpeedSegment first = t.segments()[0], last = t.segments()[3];
  ASSERT_TRUE(t.updateSegment(a.id, s(3), s(4)));      // inside its own old extent
  ASSERT_TRUE(t.updateSegment(first.id, s(7), s(9)));  // from first place to between b and the last, touching both
  ASSERT_TRUE(t.setSpeed(Speed::x16, a.id));
  t.removeSegment(b.id);
  EXPECT_EQ(t.segments(), (std::vector<SpeedSegment>{{a.id, s(3), s(4), Speed::x16}, {first.id, s(7), s(9), Speed::x4},
                                                     last}));
}

// A trim clips the segments that stick out and drops those left empty; on a tie a segment keeps its own bound.
TEST(SpeedTimeline, TrimClipsAndDropsSegments) {
  const SpeedTimeline base = twoSegments();
  const SpeedSegment a = base.segments()[0], b = base.segments()[1];
  const std::tuple<RT, RT, std::vector<SpeedSegment>> cases[] = {
      {s(0), s(10), {a, b}}, {s(4), s(10), {b}}, {s(0), s(2), {}}, {s(7), s(8), {}}, {{4, 2}, {14, 2}, {a, b}},
      {s(3), s(6), {{a.id, s(3), s(4), a.speed}, {b.id, s(4), s(6), b.speed}}}};
  for (const auto& [start, end, remaining] : cases) {
    SpeedTimeline t = base;
    ASSERT_TRUE(t.setTrim(start, end));
    EXPECT_EQ(std::pair(t.trimStart(), t.trimEnd()), std::pair(start, end));
    EXPECT_EQ(t.segments(), remaining) << start.toString() << ".." << end.toString();
    EXPECT_TRUE(start.timescale() != 2 || t.segments()[0].start.timescale() == 1) << "a tie took the trim's bound";
  }
}

// Trim 0..10 s, x4 over 2..6 s: 1 s of output for 4 s of source; times outside are clamped.
TEST(SpeedTimeline, MapsTheWorkedExampleBothWays) {
  SpeedTimeline t(s(10));
  ASSERT_TRUE(t.addSegment(s(2), s(6), Speed::x4));
  const std::pair<RT, RT> both[] = {
      {s(0), s(0)}, {s(1), s(1)}, {s(2), s(2)}, {s(4), {5, 2}}, {s(6), s(3)}, {s(8), s(5)}, {s(10), s(7)}};
  for (const auto& [source, output] : both)
    EXPECT_EQ(std::pair(t.outputTimeForSource(source), t.sourceTimeForOutput(output)), std::pair(output, source));
  EXPECT_EQ(std::pair(t.outputTimeForSource(s(-3)), t.outputTimeForSource(s(12))), std::pair(s(0), s(7)));
  EXPECT_EQ(std::pair(t.sourceTimeForOutput(s(-1)), t.sourceTimeForOutput(s(9))), std::pair(s(0), s(10)));
}

// Mixed timescales, prime ones too, whose common multiples stay far below 2^63. Both accepted and refused edits
// must be frequent for the property to mean anything.
TEST(SpeedTimelineProperty, RandomEditSequencesKeepEveryInvariant) {
  constexpr std::int64_t kTimescales[] = {1, 600, 90000, 30000, 7919, 101};
  std::mt19937_64 rng;
  const auto below = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng); };
  const auto time = [&](double lo, double hi) {  // about lo..hi seconds, at a random timescale
    const std::int64_t ts = kTimescales[below(6)];
    return RT(std::int64_t(std::uniform_real_distribution<double>(lo, hi)(rng) * double(ts)), ts);
  };
  int accepted = 0, refused = 0;
  for (std::uint64_t seed = 1; seed <= 2000; ++seed) {
    rng.seed(seed);
    SpeedTimeline t(time(5, 120));
    const double length = t.sourceDuration().seconds();
    for (int step = 0; step < 25; ++step) {
      const SpeedTimeline before = t;
      const auto& segs = t.segments();
      const Uuid id = segs.empty() || below(8) == 0 ? Uuid::random() : segs[std::size_t(below(int(segs.size())))].id;
      const RT a = time(-0.5, length + 0.5), b = a + time(-1, length / 4);
      const int kind = below(5);
      const auto result = kind == 0   ? t.setTrim(time(-0.5, length * 0.4), time(length * 0.5, length + 0.5))
                          : kind == 1 ? t.updateSegment(id, a, b)
                          : kind == 2 ? t.setSpeed(kAllSpeeds[std::size_t(below(4))], id)
                                      : t.addSegment(a, b, kAllSpeeds[std::size_t(below(4))]);
      ++(result ? accepted : refused);
      SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step));
      ASSERT_TRUE(result || t == before) << "refused with " << toString(result.error()) << " but changed";
      // Every invariant; the mappings at random probes and every bound are non-decreasing, a round trip outside the
      // segments gives the time back, and the output length is the range lengths over their speeds, summed here.
      RT cursor = t.trimStart(), sum = RT::zero(), lastOutput = RT::zero(), lastSource = RT::zero();
      ASSERT_TRUE(RT::zero() <= cursor && cursor < t.trimEnd() && t.trimEnd() <= t.sourceDuration());
      std::vector<RT> probes{t.trimStart(), t.trimEnd()};
      for (const auto& x : t.segments()) {
        ASSERT_TRUE(cursor <= x.start && x.start < x.end && x.end <= t.trimEnd() &&
                    std::ranges::count(t.segments(), x.id, &SpeedSegment::id) == 1)
            << "segments unsorted, overlapping, outside the trim or with a repeated id";
        sum = sum + (x.start - cursor) + (x.end - x.start).dividedBy(multiplier(x.speed));
        cursor = x.end;
        probes.insert(probes.end(), {x.start, x.end});
      }
      ASSERT_EQ(t.outputDuration(), sum + (t.trimEnd() - cursor));
      for (int i = 0; i < 8; ++i) probes.push_back(time(-1, length + 1));
      std::ranges::sort(probes);
      for (const RT x : probes) {
        const RT out = t.outputTimeForSource(x), back = t.sourceTimeForOutput(out);
        ASSERT_TRUE(lastOutput <= out && lastSource <= back) << "a mapping decreases at " << x.toString();
        lastOutput = out, lastSource = back;
        const bool inSegment = std::ranges::any_of(t.segments(), [&](auto& y) { return y.start < x && x < y.end; });
        ASSERT_TRUE(x < t.trimStart() || t.trimEnd() < x || inSegment || back == x) << "via " << out.toString();
      }
    }
  }
  EXPECT_TRUE(accepted > 2000 && refused > 2000) << accepted << " accepted, " << refused << " refused";
}

// Position to time: 0/1 at or before 0 or on an empty strip, the duration at or past the width, otherwise rounded
// half away from zero at the duration's timescale. Time to position: clamped, unrounded; a reversed rect has no width.
TEST(TimelineGeometry, MapsPositionsTimesAndClicks) {
  const G g(300, {600, 600});  // 1 s at timescale 600: two ticks a point
  const std::tuple<G, double, std::int64_t, std::int64_t> times[] = {
      {g, 150, 300, 600}, {g, 0.25, 1, 600}, {g, 0.2, 0, 600}, {g, 300, 600, 600}, {g, 1e9, 600, 600}, {g, 0, 0, 1},
      {g, -5, 0, 1}, {G(0, {600, 600}), 10, 0, 1}, {G(300, {0, 600}), 10, 0, 1}, {G(300, s(10)), 45, 2, 1}};
  for (const auto& [geometry, x, value, ts] : times)
    EXPECT_EQ(std::pair(geometry.timeAtX(x).value(), geometry.timeAtX(x).timescale()), std::pair(value, ts)) << x;
  const std::pair<RT, double> xs[] = {{{-1, 1}, 0}, {{1, 3}, 100}, {{1, 2}, 150}, {{2, 1}, 300}, {{1, 600}, 0.5}};
  for (const auto& [t, x] : xs) EXPECT_DOUBLE_EQ(g.xForTime(t), x) << t.toString();
  EXPECT_EQ(G(300, {0, 600}).xForTime({1, 2}), 0);
  EXPECT_EQ(std::pair(g.rect({1, 3}, {1, 2}), g.rect({1, 2}, {1, 3})),
            std::pair(RectF{100, 0, 50, 64}, RectF{150, 0, 0, 64}));
  EXPECT_TRUE(G(100, {1, 2}) == G(100, {2, 4}) && (Range{{1, 2}, {1, 1}}) == (Range{{2, 4}, {3, 3}}));
  const std::vector<SpeedSegment> touching{seg(s(2), s(4)), seg(s(4), s(5))};  // a click: start in, end out
  EXPECT_EQ(G::segmentId(s(2), touching), touching[0].id);
  EXPECT_EQ(G::segmentId({8, 2}, touching), touching[1].id);
  EXPECT_EQ(G::segmentId(s(5), touching), std::nullopt);
  EXPECT_EQ(G::sampleTimes(4, s(10)), (std::vector<RT>{s(0), {10, 4}, {20, 4}, {30, 4}}));
  for (const auto& one : {G::sampleTimes(1, s(10)), G::sampleTimes(3, s(0))}) EXPECT_EQ(one, std::vector{RT::zero()});
  EXPECT_TRUE(G::sampleTimes(0, s(10)).empty());
}

// A drag on empty strip: ordered, clamped to the trim, pushed past the segments it starts in, stopped at the next.
TEST(TimelineGeometry, DragRanges) {
  const G g(100, {100, 10});  // 10 points a second, at 1/10 s
  const std::vector<SpeedSegment> unsorted{seg(s(7), s(8)), seg(s(4), s(5)), seg(s(2), s(4))};
  const std::tuple<double, double, RT, RT, std::optional<Range>> cases[] = {
      {50, 65, s(0), s(10), Range{s(5), {65, 10}}}, {65, 50, s(0), s(10), Range{s(5), {65, 10}}},
      {25, 60, s(0), s(10), Range{s(5), s(6)}},  // starts inside one, pushed past the adjoining one too
      {55, 95, s(0), s(10), Range{{55, 10}, s(7)}}, {0, 35, s(1), s(9), Range{s(1), s(2)}},
      {71, 79, s(0), s(10), std::nullopt}, {0, 5, s(1), s(9), std::nullopt}, {55, 55, s(0), s(10), std::nullopt}};
  for (const auto& [from, to, trimStart, trimEnd, expected] : cases)
    EXPECT_EQ(g.proposedRange(from, to, trimStart, trimEnd, unsorted), expected) << from << ".." << to;
  // Dragging a segment's edge never crosses a neighbour or the trim, and keeps one tick where there is room.
  const RT tick{1, 10};
  const SpeedSegment a = seg(s(2), s(4)), b = seg(s(6), s(8)), tight = seg(s(2), {121, 60});
  const std::vector<SpeedSegment> segments{a, b, seg({121, 60}, s(3))};
  const std::tuple<SpeedSegment, G::Edge, double, RT, RT, Range> resizes[] = {
      {a, G::Edge::end, 50, s(0), s(10), {s(2), s(5)}}, {a, G::Edge::end, 90, s(0), s(10), {s(2), s(6)}},
      {a, G::Edge::end, 5, s(0), s(10), {s(2), s(2) + tick}}, {b, G::Edge::end, 100, s(0), s(9), {s(6), s(9)}},
      {b, G::Edge::start, 10, s(0), s(10), {s(4), s(8)}}, {a, G::Edge::start, 80, s(0), s(10), {s(4) - tick, s(4)}},
      {a, G::Edge::start, 0, s(1), s(10), {s(1), s(4)}}};
  for (const auto& [segment, edge, x, trimStart, trimEnd, expected] : resizes)
    EXPECT_EQ(g.resizedRange(segment, edge, x, trimStart, trimEnd, {segments.data(), 2}, tick), expected) << x;
  // No room for a whole tick: the neighbour wins.
  EXPECT_EQ(g.resizedRange(tight, G::Edge::end, 0, s(0), s(10), {&segments[2], 1}, {2, 60}), (Range{s(2), tight.end}));
  // Trim handles ignore segments (here with a one-second minimum).
  const std::tuple<G::TrimEdge, double, RT, RT, G::TrimRange> trims[] = {
      {G::TrimEdge::start, 100, s(0), s(10), {s(9), s(10)}}, {G::TrimEdge::start, -20, s(3), s(10), {s(0), s(10)}},
      {G::TrimEdge::start, 40, s(0), s(8), {s(4), s(8)}}, {G::TrimEdge::end, 0, s(3), s(10), {s(3), s(4)}},
      {G::TrimEdge::end, 70, s(3), s(10), {s(3), s(7)}}, {G::TrimEdge::end, 0, s(10), s(10), {s(10), s(10)}}};
  for (const auto& [edge, x, start, end, expected] : trims)
    EXPECT_EQ(g.trimmedRange(edge, x, start, end, s(1)), expected) << x;
}

}  // namespace
}  // namespace vantrix
