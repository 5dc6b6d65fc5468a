#include "media/DisplayTransform.h"
#include "media/MediaAsset.h"
#include "media/VideoDecoder.h"

#include "MediaTestSupport.h"

extern "C" {
#include <libavutil/display.h>
}

#include <gtest/gtest.h>

#include <array>

namespace vantrix {
namespace {

using namespace testing;

TEST(MediaAsset, GeneratedFilesReportTheirStreamsAndTheExactSpanOfTheirFrames) {
  const FixtureSpec cases[] = {
      {},
      {.container = Container::mov, .frameRateNum = 30000, .frameRateDen = 1001, .audio = AudioLayout::mono},
      {.variableFrameRate = true},
      {.container = Container::mov, .variableFrameRate = true, .seconds = 2.5},
      {.container = Container::m4v, .codec = VideoCodec::mpeg4, .audio = AudioLayout::none},
      {.container = Container::mov, .codec = VideoCodec::mjpeg, .audioCodec = AudioCodec::pcm},
      {.frameRateNum = 25, .rotation = 90, .audio = AudioLayout::surround51},
      {.width = 240, .height = 320, .rotation = 270, .sampleRate = 44100},
      {.seconds = 1.3, .rotation = 180, .gopFrames = 7},
  };
  for (const FixtureSpec& s : cases) {
    const auto file = fixture(s);
    SCOPED_TRACE(file);
    const auto asset = openAsset(file);
    ASSERT_TRUE(asset && asset->video());
    const VideoTrack& v = *asset->video();
    const auto frames = readFrames(file);
    ASSERT_EQ(static_cast<std::int64_t>(frames.size()), frameCount(s));
    EXPECT_EQ(asset->duration(), frameSpan(frames));
    EXPECT_EQ(RationalTime(v.firstTimestamp * v.timeBase.num, v.timeBase.den), frames.front().time);
    EXPECT_EQ(v.transform.rotationDegrees(), s.rotation);
    EXPECT_EQ(QSize(v.width, v.height), QSize(s.width, s.height));
    if (!s.variableFrameRate) {
      EXPECT_EQ(av_cmp_q(v.frameRate, AVRational{s.frameRateNum, s.frameRateDen}), 0);
    }
    ASSERT_EQ(asset->audio().has_value(), s.audio != AudioLayout::none);
    if (asset->audio()) {
      EXPECT_EQ(asset->audio()->sampleRate, s.sampleRate);
      EXPECT_EQ(asset->audio()->channelCount, (std::array{0, 1, 2, 6}[static_cast<std::size_t>(s.audio)]));
    }
  }
}

// Source time zero is the first shown frame; every stream's timestamps are offset by it, rounded
// to the nearest tick with ties away from zero.
TEST(MediaAsset, SourceTimesAndStreamTimestampsConvertThroughTheFirstFrame) {
  VideoTrack v;
  v.timeBase = {1, 30000};
  v.firstTimestamp = 2002;
  v.duration = {30030, 30000};
  const MediaAsset asset("x.mp4", v, std::nullopt);
  v.timeBase = {1, 2};
  v.firstTimestamp = 1;  // half a second
  const MediaAsset coarse("y.mp4", v, std::nullopt);
  const struct {
    const MediaAsset& asset;
    RationalTime source;
    AVRational timeBase;
    std::int64_t timestamp;
  } cases[] = {
      {asset, {1, 1}, {1, 30000}, 32002},
      {asset, {1, 3}, {1, 90000}, 36006},
      {asset, RationalTime::zero(), {1, 44100}, 2943},  // 2942.94 rounds up
      {asset, {-2002, 30000}, {1, 44100}, 0},
      {coarse, {1, 4}, {1, 2}, 2},          // 1.5 ticks
      {coarse, {-5, 4}, {1, 2}, -2},        // -1.5 ticks
      {coarse, {1, 1}, {1001, 30000}, 45},  // 1.5 s in ticks of 1001/30000 s: 44.955
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.asset.timestampForSourceTime(c.source, c.timeBase), c.timestamp) << c.source.toString();
  }
  EXPECT_EQ(asset.sourceTimeForTimestamp(32002, {1, 30000}), RationalTime(1, 1));
  EXPECT_EQ(asset.sourceTimeForTimestamp(2943, {1, 44100}), RationalTime(2943, 44100) - RationalTime(2002, 30000));
}

// FFmpeg's matrix for a picture shown turned clockwise by `degrees`, optionally mirrored.
DisplayTransform::Matrix matrix(double degrees, bool hflip = false) {
  DisplayTransform::Matrix m{};
  av_display_rotation_set(m.data(), degrees);
  av_display_matrix_flip(m.data(), hflip ? 1 : 0, 0);
  return m;
}

// A 3 x 2 stored picture, black but for one red pixel in its top-left corner.
QImage marked() {
  QImage image(3, 2, QImage::Format_RGB32);
  image.fill(Qt::black);
  image.setPixel(0, 0, qRgb(255, 0, 0));
  return image;
}

TEST(DisplayTransform, QuarterTurnsAndMirrorsPutTheStoredCornerWhereItIsShown) {
  const struct {
    const char* what;
    DisplayTransform t;
    int clockwise;
    QSize shown;
    QPoint corner;  // where the stored top-left pixel is shown
  } cases[] = {
      {"default", DisplayTransform(), 0, {3, 2}, {0, 0}},
      {"90", DisplayTransform(matrix(90)), 90, {2, 3}, {1, 0}},
      {"180", DisplayTransform(matrix(180)), 180, {3, 2}, {2, 1}},
      {"-90", DisplayTransform(matrix(-90)), 270, {2, 3}, {0, 2}},
      {"80 snaps to a quarter turn", DisplayTransform(matrix(80)), 90, {2, 3}, {1, 0}},
      {"horizontal mirror", DisplayTransform(matrix(0, true)), 180, {3, 2}, {2, 0}},
      {"mirrored quarter turn: a transpose", DisplayTransform(matrix(90, true)), 90, {2, 3}, {0, 0}},
      {"all zero: shown as stored", DisplayTransform(DisplayTransform::Matrix{}), 0, {3, 2}, {0, 0}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.t.rotationDegrees(), c.clockwise) << c.what;
    const QImage shown = c.t.applied(marked());
    ASSERT_EQ(shown.size(), c.shown) << c.what;
    EXPECT_EQ(shown.pixel(c.corner), qRgb(255, 0, 0)) << c.what;
  }
  // The writer leaves the matrix out only for the identity.
  EXPECT_TRUE(DisplayTransform().isIdentity());
  EXPECT_FALSE(DisplayTransform(matrix(90)).isIdentity());
}

// Seeking to a frame's timestamp, decoding forward reaches that very frame and shows nothing after
// it first: open groups of pictures, edit lists and B-frames included.
TEST(VideoDecoder, EverySeekReachesTheFrameAtItsTarget) {
  std::vector<std::filesystem::path> files{fixture({})};
  if (haveRealWorld()) {
    for (const char* f :
         {"androidx__media/iibbibb_editlist_videoonly.mp4", "androidx__media/pixel7_videoOnly_cleaned.mp4",
          "androidx__media/sample.mp4", "drewnoakes__metadata-extractor-images/with-gps.mov"})
      files.push_back(realWorldFile(f));
  }
  for (const auto& file : files) {
    SCOPED_TRACE(file);
    auto decoder = VideoDecoder::open(openAsset(file));
    ASSERT_TRUE(decoder);
    std::vector<std::int64_t> timestamps;
    for (auto frame = decoder->nextFrame(); frame && *frame; frame = decoder->nextFrame())
      timestamps.push_back((*frame)->best_effort_timestamp);
    ASSERT_FALSE(timestamps.empty());
    // Fifteen targets spread over the stream, the first and the last frame among them.
    for (std::size_t i = 0; i < 15; ++i) {
      const std::int64_t target = timestamps[i * (timestamps.size() - 1) / 14];
      ASSERT_TRUE(decoder->seek(target));
      std::int64_t reached = 0;
      do {
        const auto frame = decoder->nextFrame();
        ASSERT_TRUE(frame && *frame) << "the stream ended before " << target;
        reached = (*frame)->best_effort_timestamp;
      } while (reached < target);
      EXPECT_EQ(reached, target);
    }
  }
}

// Frames already decoded may still come out after a stop; reading more input must not.
TEST(VideoDecoder, AStoppedDecoderReportsCancellation) {
  std::stop_source stop;
  auto decoder = VideoDecoder::open(openAsset(fixture({})), stop.get_token());
  ASSERT_TRUE(decoder && decoder->nextFrame());
  stop.request_stop();
  auto last = decoder->nextFrame();
  for (int i = 0; i < 64 && last && *last; ++i) last = decoder->nextFrame();
  ASSERT_FALSE(last);
  EXPECT_TRUE(last.error().is(MediaError::Code::cancelled)) << last.error().description();
}

}  // namespace
}  // namespace vantrix
