#include "media/AudioRing.h"
#include "media/Playhead.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

namespace vantrix {
namespace {

using namespace std::chrono_literals;

// Mono sound where every sample holds its own output position, so reads show which positions came
// out.
std::vector<float> positions(std::int64_t from, int count) {
  std::vector<float> v(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) v[static_cast<std::size_t>(i)] = static_cast<float>(from + i);
  return v;
}

std::vector<float> read(AudioRing& ring, int count, std::optional<std::int64_t> due) {
  std::vector<float> out(static_cast<std::size_t>(count * ring.channels()), -1.0f);
  ring.read(out.data(), count, due);
  return out;
}

std::vector<float> silence(int count) { return std::vector<float>(static_cast<std::size_t>(count), 0.0f); }

TEST(AudioRing, ReadsFollowTheDuePositionLoosely) {
  const struct {
    const char* what;
    std::vector<std::int64_t> dues;  // successive reads of 100 frames
    std::int64_t firstOfLastRead;    // -1: silence
  } cases[] = {
      {"exact", {1000, 1100, 1200}, 1200},
      {"jitter is ignored", {1000, 1150, 1150}, 1200},  // 50 then -50 frames off
      {"drift beyond the tolerance jumps ahead", {1000, 1100 + AudioRing::kResyncFrames + 1}, 2061},
      // Behind the sound already played: silence until the clock reaches what is left.
      {"drift back beyond the tolerance is silent", {3000, 3100 - AudioRing::kResyncFrames - 1}, -1},
      {"before the sound", {0}, -1},
      {"past the sound", {7000}, -1},
  };
  for (const auto& c : cases) {
    AudioRing ring(1, 10'000);
    ring.reset(1);
    ASSERT_EQ(ring.write(1, 1000, positions(1000, 5000)), AudioRing::Write::written);
    std::vector<float> last;
    for (const std::int64_t due : c.dues) last = read(ring, 100, due);
    EXPECT_EQ(last, c.firstOfLastRead < 0 ? silence(100) : positions(c.firstOfLastRead, 100)) << c.what;
  }
}

TEST(AudioRing, PartlyCoveredReadsArePaddedWithSilence) {
  AudioRing ring(1, 1000);
  ring.reset(1);
  ASSERT_EQ(ring.write(1, 50, positions(50, 100)), AudioRing::Write::written);
  std::vector<float> expected = silence(200);
  std::ranges::copy(positions(50, 100), expected.begin() + 50);
  EXPECT_EQ(read(ring, 200, 0), expected);
}

TEST(AudioRing, WritesOfAnOlderSessionAreDropped) {
  AudioRing ring(2, 1000);
  ring.reset(1);
  ASSERT_EQ(ring.write(1, 0, std::vector<float>(200, 0.5f)), AudioRing::Write::written);
  ring.reset(2);
  EXPECT_EQ(ring.write(1, 100, std::vector<float>(200, 0.5f)), AudioRing::Write::stale);
  EXPECT_FALSE(ring.end().has_value());
  EXPECT_EQ(read(ring, 50, 0), silence(100));
}

TEST(AudioRing, AJumpWaitsUntilEverythingBeforeItWasPlayed) {
  AudioRing ring(1, 1000);
  ring.reset(1);
  ASSERT_EQ(ring.write(1, 0, positions(0, 300)), AudioRing::Write::written);
  EXPECT_EQ(ring.write(1, 5000, positions(5000, 100)), AudioRing::Write::full);
  read(ring, 200, 0);
  EXPECT_EQ(ring.write(1, 5000, positions(5000, 100)), AudioRing::Write::full);
  read(ring, 200, 200);  // plays the rest and 100 frames of silence after it
  EXPECT_EQ(ring.write(1, 5000, positions(5000, 100)), AudioRing::Write::written);
  EXPECT_EQ(ring.end(), 5100);
  EXPECT_EQ(read(ring, 10, 5000), positions(5000, 10));
}

TEST(AudioRing, AFullRingRefusesAndAStoppedPlayheadConsumesNothing) {
  AudioRing ring(1, 500);
  ring.reset(1);
  ASSERT_EQ(ring.write(1, 0, positions(0, 400)), AudioRing::Write::written);
  EXPECT_EQ(ring.write(1, 400, positions(400, 101)), AudioRing::Write::full);
  EXPECT_EQ(read(ring, 100, std::nullopt), silence(100));
  EXPECT_EQ(ring.freeFrames(), 100);
  read(ring, 200, 0);
  EXPECT_EQ(ring.freeFrames(), 300);
  EXPECT_EQ(ring.write(1, 400, positions(400, 101)), AudioRing::Write::written);
}

TEST(Playhead, RunsFromItsStartAtTheClocksPaceAndParksWhereItStops) {
  auto clock = std::make_shared<ManualClock>();
  clock->advance(5s);  // any origin
  Playhead playhead(clock);
  const RationalTime start(1001, 30000);
  playhead.park(start);
  clock->advance(1s);
  EXPECT_EQ(playhead.now(), start);
  playhead.run(start);
  clock->advance(250ms);
  EXPECT_EQ(playhead.now(), start + RationalTime(1, 4));
  EXPECT_EQ(playhead.at(100ms), start + RationalTime(35, 100));
  EXPECT_EQ(playhead.clockTimeOf(start + RationalTime(1, 2)), clock->now() + 250ms);
  const RationalTime stoppedAt = playhead.now();
  playhead.park(stoppedAt);
  clock->advance(1s);
  EXPECT_EQ(playhead.now(), stoppedAt);
  playhead.run(stoppedAt);  // a second run starts from a running time without growing its timescale
  clock->advance(1ms);
  EXPECT_EQ(playhead.now(), stoppedAt + RationalTime(1, 1000));
}

TEST(Playhead, AStartOnAnUnwieldyTimescaleIsRoundedDownToANanosecond) {
  auto clock = std::make_shared<ManualClock>();
  Playhead playhead(clock);
  const RationalTime start(1, 999'999'937);  // prime: no common multiple with nanoseconds fits
  playhead.run(start);
  EXPECT_LE(playhead.now(), start);
  EXPECT_GT(playhead.now(), start - RationalTime(1, 1'000'000'000));
  clock->advance(std::chrono::hours(24 * 30));
  EXPECT_NEAR(playhead.now().seconds(), 30.0 * 24 * 3600, 1e-3);
}

}  // namespace
}  // namespace vantrix
