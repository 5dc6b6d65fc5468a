#include "media/CompositionBuilder.h"

#include "LogCapture.h"

#include <gtest/gtest.h>

namespace vantrix {
namespace {

using CompositionBuilder::Range;
using testing::LogCapture;

RationalTime s(std::int64_t seconds) { return RationalTime::seconds(seconds); }
// Seconds on the 1/600 s grid that phone videos use.
RationalTime t600(double seconds) { return {static_cast<std::int64_t>(seconds * 600), 600}; }

// A 60 s source on the 1/600 s grid.
std::shared_ptr<const MediaAsset> asset(bool withAudio, bool withVideo = true) {
  std::optional<VideoTrack> video;
  if (withVideo) {
    video.emplace();
    video->streamIndex = 0;
    video->timeBase = {1, 600};
    video->duration = t600(60);
  }
  std::optional<AudioTrack> audio;
  if (withAudio) audio = AudioTrack{1, AV_CODEC_ID_AAC, {1, 48000}, 48000, 2, 3};
  return std::make_shared<const MediaAsset>("source.mov", video, audio);
}

// Source 60 s, trim 5 to 50 s, 10 to 20 s at x4 and 20 to 30 s at x2.
SpeedTimeline workedExample() {
  SpeedTimeline t(t600(60));
  EXPECT_TRUE(t.setTrim(t600(5), t600(50)));
  EXPECT_TRUE(t.addSegment(t600(10), t600(20), Speed::x4));
  EXPECT_TRUE(t.addSegment(t600(20), t600(30), Speed::x2));
  return t;
}

std::vector<Range> rangesOf(RationalTime trimStart, RationalTime trimEnd, const std::vector<Range>& segments) {
  SpeedTimeline timeline(s(60));
  EXPECT_TRUE(timeline.setTrim(trimStart, trimEnd));
  for (const Range& r : segments) {
    EXPECT_TRUE(timeline.addSegment(r.start, r.end, *r.speed));
  }
  return CompositionBuilder::ranges(timeline);
}

// The worked example's four ranges are checked through build() below.
TEST(CompositionBuilder, RangesCoverTheTrimWithGapsOnlyWhereNeeded) {
  const std::optional<Speed> normal;
  EXPECT_EQ(rangesOf(s(0), s(60), {}), (std::vector<Range>{{s(0), s(60), normal}}));
  const std::vector<Range> fillingTheTrim{{s(5), s(20), Speed::x16}, {s(20), s(50), Speed::x2}};
  EXPECT_EQ(rangesOf(s(5), s(50), fillingTheTrim), fillingTheTrim) << "touching, at both edges: no gap";
  // The same instants on other timescales: 1/2 s is 300/600 s, 2/1 s is 4/2 s.
  std::vector<Range> mixed{{{300, 600}, s(2), Speed::x2}, {{4, 2}, {1800, 600}, Speed::x4}};
  const auto ranges = rangesOf({1, 2}, s(50), mixed);
  mixed.push_back({{1800, 600}, s(50), normal});
  EXPECT_EQ(ranges, mixed);
}

// Exact when it can be: on a finer timescale if need be, rounded only when none fits 32 bits.
TEST(CompositionBuilder, ScaledDurationsAreExactWhereATimescaleAllows) {
  const struct {
    RationalTime duration;
    Speed speed;
    RationalTime expected;
  } cases[] = {
      {{10, 1}, Speed::x4, {10, 4}},  // 10 s at x4: 2.5 s, not a rounded 3
      {{7, 600}, Speed::x2, {7, 1200}},
      {{6000, 600}, Speed::x16, {375, 600}},          // divides: the timescale is kept
      {{5, 2147483647}, Speed::x4, {1, 2147483647}},  // 1.25 ticks round
      {{7, 2147483647}, Speed::x2, {4, 2147483647}},  // ties away from zero
  };
  for (const auto& c : cases) {
    const RationalTime scaled = CompositionBuilder::scaledDuration(c.duration, c.speed);
    EXPECT_EQ(std::pair(scaled.value(), scaled.timescale()), std::pair(c.expected.value(), c.expected.timescale()))
        << c.duration.toString();
  }
}

TEST(CompositionBuilder, TheWorkedExampleLaysOutVideoAndNormalSpeedAudioWhenThereIsAudio) {
  const SpeedTimeline timeline = workedExample();
  const auto built = CompositionBuilder::build(timeline, asset(true));
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
  EXPECT_EQ(c.duration(), timeline.outputTimeForSource(timeline.trimEnd()));

  const auto silent = CompositionBuilder::build(timeline, asset(false));
  ASSERT_TRUE(silent);
  EXPECT_EQ((*silent)->videoEdits(), video);
  EXPECT_FALSE((*silent)->hasAudioTrack()) << "no audio track for a silent source";
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
      {"no video", workedExample(), asset(true, false), "Asset has no video track; cannot build composition."},
      {"no asset", workedExample(), nullptr, "Asset has no video track; cannot build composition."},
      {"range past the track", tooLong, asset(true), "Track insertion failed: "},
  };
  for (const auto& c : cases) {
    LogCapture log;
    const auto built = CompositionBuilder::build(c.timeline, c.source);
    ASSERT_FALSE(built) << c.what;
    EXPECT_EQ(built.error(), AppError::compositionFailed()) << c.what;
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << c.what;
    EXPECT_EQ(std::pair(lines[0].category, lines[0].type), std::pair(QString("vantrix.media"), QtCriticalMsg))
        << c.what;
    EXPECT_TRUE(lines[0].message.startsWith(c.line)) << c.what << ": " << lines[0].message.toStdString();
  }
}

}  // namespace
}  // namespace vantrix
