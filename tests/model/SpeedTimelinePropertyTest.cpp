// Random edit sequences on random timelines with mixed timescales: every invariant holds after
// every edit, refused edits change nothing, and the two mappings agree with each other and with
// the plain sum of range lengths over speeds.
#include "model/SpeedTimeline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace vantrix {
namespace {

// Mixed timescales whose common multiple (times the speed factors) stays far below 2^63.
constexpr std::int64_t kTimescales[] = {1, 600, 90000, 30000, 7919, 101};

class Generator {
 public:
  explicit Generator(std::uint64_t seed) : m_rng(seed) {}

  int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(m_rng); }
  std::int64_t timescale() { return kTimescales[below(std::size(kTimescales))]; }
  // A time in [lo, hi] seconds (roughly), in a random timescale.
  RationalTime time(double lo, double hi) {
    const std::int64_t ts = timescale();
    const double seconds = std::uniform_real_distribution<double>(lo, hi)(m_rng);
    return {static_cast<std::int64_t>(seconds * static_cast<double>(ts)), ts};
  }
  Speed speed() { return kAllSpeeds[static_cast<std::size_t>(below(4))]; }

 private:
  std::mt19937_64 m_rng;
};

void expectInvariants(const SpeedTimeline& t) {
  ASSERT_LE(RationalTime::zero(), t.trimStart());
  ASSERT_LT(t.trimStart(), t.trimEnd());
  ASSERT_LE(t.trimEnd(), t.sourceDuration());
  const auto& segs = t.segments();
  for (std::size_t i = 0; i < segs.size(); ++i) {
    ASSERT_LT(segs[i].start, segs[i].end);
    ASSERT_LE(t.trimStart(), segs[i].start);
    ASSERT_LE(segs[i].end, t.trimEnd());
    if (i > 0) {
      ASSERT_LE(segs[i - 1].end, segs[i].start) << "overlap or out of order at " << i;
    }
    for (std::size_t j = 0; j < i; ++j) ASSERT_NE(segs[i].id, segs[j].id);
  }
}

// The edited length summed range by range, independent of the mapping code.
RationalTime summedLength(const SpeedTimeline& t) {
  RationalTime total = RationalTime::zero();
  RationalTime cursor = t.trimStart();
  for (const auto& s : t.segments()) {
    total = total + (s.start - cursor) + (s.end - s.start).dividedBy(multiplier(s.speed));
    cursor = s.end;
  }
  return total + (t.trimEnd() - cursor);
}

bool insideSegment(const SpeedTimeline& t, RationalTime x) {
  for (const auto& s : t.segments())
    if (s.start < x && x < s.end) return true;
  return false;
}

void expectMappingsConsistent(const SpeedTimeline& t, Generator& g) {
  const double length = t.sourceDuration().seconds();
  ASSERT_EQ(t.outputDuration(), summedLength(t));
  RationalTime previousSource = RationalTime::zero();
  RationalTime previousOutput = RationalTime::zero();
  std::vector<RationalTime> probes;
  for (int i = 0; i < 40; ++i) probes.push_back(g.time(-1, length + 1));
  for (const auto& s : t.segments()) probes.insert(probes.end(), {s.start, s.end});
  probes.insert(probes.end(), {t.trimStart(), t.trimEnd()});
  std::ranges::sort(probes);
  for (RationalTime src : probes) {
    const RationalTime out = t.outputTimeForSource(src);
    ASSERT_LE(previousOutput, out) << "outputTimeForSource decreases at " << src.toString();
    previousOutput = out;
    const RationalTime back = t.sourceTimeForOutput(out);
    ASSERT_LE(previousSource, back) << "sourceTimeForOutput decreases at " << out.toString();
    previousSource = back;
    if (t.trimStart() <= src && src <= t.trimEnd() && !insideSegment(t, src)) {
      ASSERT_EQ(back, src) << "round trip of " << src.toString() << " via " << out.toString();
    }
  }
}

TEST(SpeedTimelineProperty, RandomEditSequencesKeepEveryInvariant) {
  int accepted = 0;
  int refused = 0;
  for (std::uint64_t seed = 1; seed <= 2000; ++seed) {
    Generator g(seed);
    SpeedTimeline t(g.time(5, 120));
    if (!(t.sourceDuration() > RationalTime::zero())) continue;
    const double length = t.sourceDuration().seconds();
    for (int step = 0; step < 25; ++step) {
      const SpeedTimeline before = t;
      std::expected<void, SpeedTimelineError> result;
      const auto anyId = [&] {
        return t.segments().empty() || g.below(8) == 0 ? Uuid::random()
                                                       : t.segments()[g.below(int(t.segments().size()))].id;
      };
      switch (g.below(5)) {
        case 0: result = t.setTrim(g.time(-0.5, length * 0.4), g.time(length * 0.5, length + 0.5)); break;
        case 1:
        case 2: {
          const RationalTime a = g.time(-0.5, length + 0.5);
          result = t.addSegment(a, a + g.time(-1, length / 4), g.speed());
          break;
        }
        case 3: {
          const RationalTime a = g.time(-0.5, length + 0.5);
          result = t.updateSegment(anyId(), a, a + g.time(-1, length / 4));
          break;
        }
        default: result = t.setSpeed(g.speed(), anyId()); break;
      }
      if (result) {
        ++accepted;
      } else {
        ++refused;
        ASSERT_EQ(t, before) << "seed " << seed << " step " << step << ": refused "
                             << toString(result.error()) << " changed the timeline";
      }
      expectInvariants(t);
      if (step % 8 == 7) expectMappingsConsistent(t, g);
    }
  }
  // Both outcomes must be exercised heavily for the property to mean anything.
  EXPECT_GT(accepted, 2000);
  EXPECT_GT(refused, 2000);
}

}  // namespace
}  // namespace vantrix
