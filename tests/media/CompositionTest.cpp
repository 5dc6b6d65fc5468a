#include "media/CompositionBuilder.h"
#include "media/CompositionReader.h"

#include "LogCapture.h"
#include "MediaTestSupport.h"

#include <gtest/gtest.h>

namespace vantrix {
namespace {

using namespace testing;
using CompositionBuilder::Range;

RationalTime s(std::int64_t seconds) { return RationalTime::seconds(seconds); }
// Seconds on the 1/600 s grid that phone videos use.
RationalTime t600(double seconds) { return {static_cast<std::int64_t>(seconds * 600), 600}; }

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

class CompositionReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_asset = openAsset(fixture({}));
    ASSERT_TRUE(m_asset);
    m_timeline.emplace(timelineFor(*m_asset, std::pair{300, 2900}, {{600, 1400, Speed::x4}, {1400, 2000, Speed::x16}}));
    m_composition = compose(*m_timeline, m_asset);
    auto reader = CompositionReader::open(m_composition);
    ASSERT_TRUE(reader);
    m_reader.emplace(std::move(*reader));
  }

  std::shared_ptr<const MediaAsset> m_asset;
  std::optional<SpeedTimeline> m_timeline;
  std::shared_ptr<const Composition> m_composition;
  std::optional<CompositionReader> m_reader;
};

// After a seek the first frame is the one showing at the asked time, with that time: boundaries,
// the last frame and beyond the end included.
TEST_F(CompositionReaderTest, SeeksLandOnTheFrameShowingThere) {
  const RationalTime end = m_composition->duration(), tick{1, 90000};
  std::vector<RationalTime> targets{RationalTime::zero(),     ms(1), ms(299), {1, 3}, ms(555), ms(800),
                                    end - RationalTime(1, 30)};
  for (const CompositionEdit& e : m_composition->videoEdits()) {
    targets.insert(targets.end(), {e.outputStart, e.outputEnd() - tick});
  }
  for (const RationalTime t : targets) {
    ASSERT_TRUE(m_reader->seek(t));
    const auto frame = m_reader->nextVideoFrame();
    ASSERT_TRUE(frame && *frame) << t.toString();
    EXPECT_EQ((*frame)->outputTime, t);
    EXPECT_EQ((*frame)->sourceTime, RationalTime(expectedFrame(*m_composition, t), 30)) << "at " << t.toString();
  }
  for (const RationalTime past : {end, end + RationalTime(5, 1)}) {
    ASSERT_TRUE(m_reader->seek(past));
    const auto frame = m_reader->nextVideoFrame();
    EXPECT_TRUE(frame && !*frame) << "nothing follows the end";
  }
}

// The sound covers the output exactly, sample for sample, and is digital silence where the picture
// is sped up.
TEST_F(CompositionReaderTest, SoundTilesTheOutputAndSpedUpStretchesAreZero) {
  ASSERT_NE(m_reader->audioLayout(), nullptr);
  std::vector<std::vector<float>> buffers(static_cast<std::size_t>(m_reader->audioLayout()->nb_channels),
                                          std::vector<float>(1000));
  std::vector<float*> planes;
  for (auto& b : buffers) planes.push_back(b.data());
  const std::int64_t spedFrom = CompositionReader::audioSampleAt(m_timeline->outputTimeForSource(ms(600)));
  const std::int64_t spedTo = CompositionReader::audioSampleAt(m_timeline->outputTimeForSource(ms(2000)));
  std::int64_t position = 0, loudInNormal = 0;
  for (auto got = m_reader->readAudio(planes.data(), 1000); got && *got;
       got = m_reader->readAudio(planes.data(), 1000)) {
    for (int i = 0; i < *got; ++i, ++position) {
      const float v = buffers[0][static_cast<std::size_t>(i)];
      if (position >= spedFrom && position < spedTo) {
        ASSERT_EQ(v, 0.0f) << "sample " << position;
      } else if (v != 0.0f) {
        ++loudInNormal;
      }
    }
  }
  EXPECT_EQ(position, CompositionReader::audioSampleAt(m_composition->duration()));
  EXPECT_GT(loudInNormal, (position - (spedTo - spedFrom)) / 2);  // the tone is there where it belongs
}

// The preview after an edit: the same asset in a new composition, at the same source instant. The
// decoded frames carry over, so the frame comes back without decoding the way to it again.
TEST_F(CompositionReaderTest, ANewCompositionOfTheSameAssetKeepsTheDecodedFrames) {
  const RationalTime source = ms(2500);
  ASSERT_TRUE(m_reader->seek(m_timeline->outputTimeForSource(source)));
  const auto before = m_reader->nextVideoFrame();
  ASSERT_TRUE(before && *before);
  ASSERT_EQ((*before)->sourceTime, source);
  const std::int64_t decoded = m_reader->framesDecoded();

  const SpeedTimeline edited = timelineFor(*m_asset, std::pair{300, 2900}, {{400, 500, Speed::x2}});
  ASSERT_TRUE(m_reader->replaceComposition(compose(edited, m_asset)));
  ASSERT_TRUE(m_reader->seek(edited.outputTimeForSource(source)));
  const auto after = m_reader->nextVideoFrame();
  ASSERT_TRUE(after && *after);
  EXPECT_EQ((*after)->sourceTime, source);
  EXPECT_EQ((*after)->outputTime, edited.outputTimeForSource(source));
  EXPECT_LE(m_reader->framesDecoded() - decoded, 1);
}

}  // namespace
}  // namespace vantrix
