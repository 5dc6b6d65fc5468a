#include "media/CompositionBuilder.h"

#include "LogCapture.h"

#include <gtest/gtest.h>

#include <random>

namespace vantrix {
namespace {

using CompositionBuilder::Range;
using testing::LogCapture;

RationalTime s(std::int64_t seconds) { return RationalTime::seconds(seconds); }
// Seconds on the 1/600 s grid that phone videos use.
RationalTime t600(double seconds) { return {static_cast<std::int64_t>(seconds * 600), 600}; }

std::shared_ptr<const MediaAsset> asset(RationalTime duration, bool withAudio, bool withVideo = true) {
  std::optional<VideoTrack> video;
  if (withVideo) {
    video.emplace();
    video->streamIndex = 0;
    video->timeBase = {1, 600};
    video->duration = duration;
  }
  std::optional<AudioTrack> audio;
  if (withAudio) audio = AudioTrack{1, AV_CODEC_ID_AAC, {1, 48000}, 48000, 2, 3};
  return std::make_shared<const MediaAsset>("source.mov", video, audio);
}

// Source 60 s, trim 5 to 50 s, 10 to 20 s at x4 and 20 to 30 s at x2.
SpeedTimeline workedExample(RationalTime (*at)(double)) {
  SpeedTimeline t(at(60));
  EXPECT_TRUE(t.setTrim(at(5), at(50)));
  EXPECT_TRUE(t.addSegment(at(10), at(20), Speed::x4));
  EXPECT_TRUE(t.addSegment(at(20), at(30), Speed::x2));
  return t;
}

TEST(CompositionBuilder, RangesCoverTheTrimWithGapsOnlyWhereNeeded) {
  const std::optional<Speed> normal;
  const struct {
    const char* what;
    RationalTime trimStart, trimEnd;
    std::vector<std::tuple<RationalTime, RationalTime, Speed>> segments;
    std::vector<Range> expected;
  } cases[] = {
      {"worked example",
       s(5),
       s(50),
       {{s(10), s(20), Speed::x4}, {s(20), s(30), Speed::x2}},
       {{s(5), s(10), normal}, {s(10), s(20), Speed::x4}, {s(20), s(30), Speed::x2}, {s(30), s(50), normal}}},
      {"no segments", s(0), s(60), {}, {{s(0), s(60), normal}}},
      {"segment at the trim start",
       s(5),
       s(50),
       {{s(5), s(8), Speed::x2}},
       {{s(5), s(8), Speed::x2}, {s(8), s(50), normal}}},
      {"segment at the trim end",
       s(5),
       s(50),
       {{s(40), s(50), Speed::x8}},
       {{s(5), s(40), normal}, {s(40), s(50), Speed::x8}}},
      {"segments fill the trim",
       s(5),
       s(50),
       {{s(5), s(20), Speed::x16}, {s(20), s(50), Speed::x2}},
       {{s(5), s(20), Speed::x16}, {s(20), s(50), Speed::x2}}},
      {"same instant, other timescale",
       {1, 2},
       s(50),
       {{{300, 600}, s(2), Speed::x2}, {{4, 2}, {1800, 600}, Speed::x4}},
       {{{300, 600}, s(2), Speed::x2}, {{4, 2}, {1800, 600}, Speed::x4}, {{1800, 600}, s(50), normal}}},
  };
  for (const auto& c : cases) {
    SpeedTimeline timeline(s(60));
    ASSERT_TRUE(timeline.setTrim(c.trimStart, c.trimEnd)) << c.what;
    for (const auto& [start, end, speed] : c.segments) ASSERT_TRUE(timeline.addSegment(start, end, speed)) << c.what;
    const auto ranges = CompositionBuilder::ranges(timeline);
    EXPECT_EQ(ranges, c.expected) << c.what;
    for (const Range& r : ranges) EXPECT_LT(r.start, r.end) << c.what << ": a zero-length range";
  }
}

TEST(CompositionBuilder, ScaledDurationsKeepTheirTimescale) {
  const struct {
    RationalTime duration;
    Speed speed;
    RationalTime expected;
  } cases[] = {
      {{900000, 90000}, Speed::x4, {225000, 90000}},  // 10 s at x4: 2.5 s, exactly
      {{6000, 600}, Speed::x16, {375, 600}},
      {{7, 600}, Speed::x2, {7, 1200}},               // 3.5 ticks, kept exact on a finer timescale
      {{10, 1}, Speed::x4, {10, 4}},                  // whole seconds: 2.5 s, not a rounded 3
      {{5, 2147483647}, Speed::x4, {1, 2147483647}},  // no finer 32-bit timescale: 1.25 ticks round
      {{7, 2147483647}, Speed::x2, {4, 2147483647}},  // ties away from zero
  };
  for (const auto& c : cases) {
    const RationalTime scaled = CompositionBuilder::scaledDuration(c.duration, c.speed);
    EXPECT_EQ(scaled.value(), c.expected.value()) << c.duration.toString();
    EXPECT_EQ(scaled.timescale(), c.expected.timescale()) << c.duration.toString();
  }
}

TEST(CompositionBuilder, TheWorkedExampleLaysOutVideoAndNormalSpeedAudioWhenThereIsAudio) {
  const SpeedTimeline timeline = workedExample(t600);
  const auto built = CompositionBuilder::build(timeline, asset(t600(60), true));
  ASSERT_TRUE(built);
  const Composition& c = **built;
  const std::vector<CompositionEdit> video{
      {t600(5), t600(5), t600(0), t600(5), std::nullopt},
      {t600(10), t600(10), t600(5), t600(2.5), Speed::x4},  // 10 s at x4 takes 2.5 s
      {t600(20), t600(10), t600(7.5), t600(5), Speed::x2},  // and the next one starts there
      {t600(30), t600(20), t600(12.5), t600(20), std::nullopt},
  };
  EXPECT_EQ(c.videoEdits(), video);
  ASSERT_TRUE(c.hasAudioTrack());
  const std::vector<CompositionEdit> audio{video[0], video[3]};
  EXPECT_EQ(c.audioEdits(), audio) << "sped-up stretches are silent";
  EXPECT_EQ(c.duration(), t600(32.5));
  EXPECT_EQ(c.duration(), timeline.outputDuration());
  EXPECT_EQ(c.audioEditAt(t600(6)), nullptr);
  EXPECT_EQ(c.audioEditAt(t600(13)), &c.audioEdits()[1]);

  const auto silent = CompositionBuilder::build(timeline, asset(t600(60), false));
  ASSERT_TRUE(silent);
  EXPECT_EQ((*silent)->videoEdits(), video);
  EXPECT_FALSE((*silent)->hasAudioTrack()) << "no audio track for a silent source";
  EXPECT_TRUE((*silent)->audioEdits().empty());
}

TEST(CompositionBuilder, OutputTimesMapToTheSourceAsTheTimelineDoes) {
  const SpeedTimeline timeline = workedExample(t600);
  const auto built = CompositionBuilder::build(timeline, asset(t600(60), false));
  ASSERT_TRUE(built);
  for (const double output : {0.0, 2.0, 4.999, 5.0, 6.0, 7.4, 7.5, 10.0, 12.5, 20.0, 32.4}) {
    const RationalTime o = t600(output);
    const auto source = (*built)->sourceTimeForOutput(o);
    ASSERT_TRUE(source) << output;
    EXPECT_EQ(*source, timeline.sourceTimeForOutput(o)) << output << ": " << source->toString();
  }
  EXPECT_FALSE((*built)->sourceTimeForOutput(t600(32.5))) << "the end is past the last frame";
  EXPECT_FALSE((*built)->sourceTimeForOutput(t600(-1)));
}

TEST(CompositionBuilder, RefusalsAreLoggedAsErrors) {
  SpeedTimeline tooLong(t600(70));
  ASSERT_TRUE(tooLong.setTrim(t600(0), t600(65)));
  const struct {
    const char* what;
    SpeedTimeline timeline;
    std::shared_ptr<const MediaAsset> source;
    QString line;
  } cases[] = {
      {"no video", workedExample(t600), asset(t600(60), true, false),
       "Asset has no video track; cannot build composition."},
      {"no asset", workedExample(t600), nullptr, "Asset has no video track; cannot build composition."},
      {"range past the track", tooLong, asset(t600(60), true), "Track insertion failed: "},
  };
  for (const auto& c : cases) {
    LogCapture log;
    const auto built = CompositionBuilder::build(c.timeline, c.source);
    ASSERT_FALSE(built) << c.what;
    EXPECT_EQ(built.error(), AppError::compositionFailed()) << c.what;
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << c.what;
    EXPECT_EQ(lines[0].category, "vantrix.media");
    EXPECT_EQ(lines[0].type, QtCriticalMsg) << c.what;
    EXPECT_TRUE(lines[0].message.startsWith(c.line)) << c.what << ": " << lines[0].message.toStdString();
  }
}

// Timelines on the 1/90000 s grid with segment lengths that do not divide by their speed: the
// edits still follow each other without gaps, and the total differs from the timeline's exact
// output length by at most half a tick per sped-up range.
TEST(CompositionBuilder, RoundingStaysWithinHalfATickPerSpedUpRange) {
  std::mt19937 random(20240611);
  const RationalTime length{60 * 90000, 90000};
  for (int round = 0; round < 200; ++round) {
    SpeedTimeline timeline(length);
    std::uniform_int_distribution<std::int64_t> tick(0, length.value());
    for (int i = 0; i < 6; ++i) {
      std::int64_t a = tick(random), b = tick(random);
      if (a > b) std::swap(a, b);
      (void)timeline.addSegment({a, 90000}, {b, 90000}, kAllSpeeds[static_cast<std::size_t>(i) % kAllSpeeds.size()]);
    }
    const auto built = CompositionBuilder::build(timeline, asset(length, true));
    ASSERT_TRUE(built);
    const auto& edits = (*built)->videoEdits();
    RationalTime cursor = RationalTime::zero();
    for (const auto& e : edits) {
      EXPECT_EQ(e.outputStart, cursor);
      cursor = e.outputEnd();
    }
    const std::int64_t sped = static_cast<std::int64_t>(timeline.segments().size());
    const RationalTime error = (*built)->duration() - timeline.outputDuration();
    const RationalTime bound{sped, 2 * 90000};
    EXPECT_LE(error, bound) << round;
    EXPECT_LE(RationalTime::zero() - error, bound) << round;
  }
}

}  // namespace
}  // namespace vantrix
