#include "media/MediaAsset.h"

#include "MediaTestSupport.h"

#include <gtest/gtest.h>

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
      EXPECT_EQ(asset->audio()->channelCount, s.audio == AudioLayout::mono     ? 1
                                              : s.audio == AudioLayout::stereo ? 2
                                                                               : 6);
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

}  // namespace
}  // namespace vantrix
