#include "persistence/SessionRestore.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace vantrix {

void PrintTo(SpeedTimelineError e, std::ostream* os) { *os << toString(e); }

namespace {

using E = SpeedTimelineError;
RationalTime s(std::int64_t seconds) { return RationalTime(seconds * 90000, 90000); }

struct Stored {
  RationalTime start, end;
  Speed speed;
};

Session session(RationalTime trimStart, RationalTime trimEnd, const std::vector<Stored>& segments) {
  Session out;
  out.trimStart = trimStart;
  out.trimEnd = trimEnd;
  for (const Stored& x : segments) out.segments.push_back({Uuid::random(), x.start, x.end, x.speed});
  return out;
}

TEST(SessionRestore, RestoresTrimAndSegmentsSortedWithFreshIds) {
  const Session stored =
      session(s(1), s(9), {{s(6), s(8), Speed::x16}, {s(2), s(3), Speed::x2}, {RationalTime(4, 1), s(6), Speed::x8}});
  const RestoredTimeline opened = restoreTimelineOrFresh(stored, s(10));
  ASSERT_FALSE(opened.refusal) << toString(*opened.refusal);
  const SpeedTimeline& restored = opened.timeline;
  EXPECT_EQ(restored.sourceDuration(), s(10));
  EXPECT_EQ(restored.trimStart(), s(1));
  EXPECT_EQ(restored.trimEnd(), s(9));
  const std::vector<Stored> expected{{s(2), s(3), Speed::x2}, {s(4), s(6), Speed::x8}, {s(6), s(8), Speed::x16}};
  ASSERT_EQ(restored.segments().size(), expected.size());
  std::set<Uuid> ids;
  for (const SpeedSegment& x : stored.segments) ids.insert(x.id);
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const SpeedSegment& got = restored.segments()[i];
    EXPECT_EQ(got.start, expected[i].start) << i;
    EXPECT_EQ(got.end, expected[i].end) << i;
    EXPECT_EQ(got.speed, expected[i].speed) << i;
    EXPECT_TRUE(ids.insert(got.id).second) << "segment " << i << " reuses an id";
  }
  EXPECT_EQ(restored.segments()[1].start.timescale(), 1);  // the stored representation is kept

  const RestoredTimeline none = restoreTimelineOrFresh(std::nullopt, s(10));
  EXPECT_EQ(none.timeline, SpeedTimeline(s(10)));
  EXPECT_FALSE(none.refusal);
}

TEST(SessionRestore, AnyRefusalGivesTheFreshTimelineNeverAPartOne) {
  const struct {
    const char* what;
    Session stored;
    RationalTime duration;
    E error;
  } cases[] = {
      {"trim end past the video's current duration", session(s(0), s(10), {}), s(8), E::invalidTrim},
      {"reversed segment", session(s(0), s(10), {{s(1), s(2), Speed::x2}, {s(5), s(4), Speed::x4}}), s(10),
       E::invalidRange},
      {"segment outside the trim", session(s(2), s(8), {{s(3), s(4), Speed::x2}, {s(7), s(9), Speed::x4}}), s(10),
       E::outsideTrim},
      {"two overlapping segments",
       session(s(0), s(10), {{s(1), s(3), Speed::x2}, {s(6), s(7), Speed::x8}, {s(2), s(4), Speed::x4}}), s(10),
       E::overlap},
      // Times the timeline would take but whose exact arithmetic could not be combined.
      {"a trim at timescale zero", session(s(0), RationalTime(5, 0), {}), s(10), E::invalidTrim},
      {"a trim timescale beyond a media time's", session(s(0), RationalTime(4294967294, 2147483647), {}), s(10),
       E::invalidTrim},
      {"a segment at a timescale coprime to the others",
       session(s(0), s(100), {{s(1), s(2), Speed::x2}, {RationalTime(900000, 89999), s(15), Speed::x4}}), s(100),
       E::invalidRange},
      {"a 139-day video with a segment at an odd timescale",
       session(s(0), RationalTime(540000090000, 45000), {{RationalTime(900000, 19365), s(58), Speed::x16}}),
       RationalTime(540000090000, 45000), E::invalidRange},
      {"a segment at a negative timescale", session(s(0), s(10), {{RationalTime(-1, -1), s(2), Speed::x2}}), s(10),
       E::invalidRange},
  };
  for (const auto& c : cases) {
    const RestoredTimeline opened = restoreTimelineOrFresh(c.stored, c.duration);
    EXPECT_EQ(opened.timeline, SpeedTimeline(c.duration)) << c.what;
    EXPECT_EQ(opened.refusal, c.error) << c.what;
  }
}

// What the editor stores: 0/1, times at the video's own timescale (strip gestures) and at 90000
// (player positions). A 10 s video with x2 over 1..2 s (player) and x8 over 5..7 s (strip).
TEST(SessionRestore, TheTimescalesRealVideosUseAreAccepted) {
  for (const std::int64_t ts : {600, 1000, 2997, 12800, 15360, 24000, 30000, 44100, 48000, 90000, 1000000}) {
    const RationalTime duration(10 * ts, ts);
    const Session stored =
        session(RationalTime::zero(), duration,
                {{s(1), s(2), Speed::x2}, {RationalTime(5 * ts, ts), RationalTime(7 * ts, ts), Speed::x8}});
    const auto restored = restoreTimeline(stored, duration);
    ASSERT_TRUE(restored) << ts << ": " << toString(restored.error());
    EXPECT_EQ(restored->outputDuration(), RationalTime(7750, 1000)) << ts;  // 10 - 1 - 2 + 0.5 + 0.25
  }
}

}  // namespace
}  // namespace vantrix
