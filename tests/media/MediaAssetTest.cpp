#include "media/MediaAsset.h"

#include "MediaFixture.h"
#include "RealWorldMedia.h"

#include <gtest/gtest.h>

namespace vantrix {
namespace {

using testing::AudioLayout;
using testing::Container;
using testing::FixtureSpec;
using testing::VideoCodec;

// The span of a file's decoded frames: last start plus last duration, minus first start.
RationalTime frameSpan(const std::vector<testing::DecodedFrame>& frames) {
  return frames.back().time + frames.back().duration - frames.front().time;
}

std::shared_ptr<const MediaAsset> openAsset(const std::filesystem::path& file) {
  auto asset = MediaAsset::open(file);
  if (!asset) ADD_FAILURE() << file << ": " << asset.error().description();
  return asset ? *asset : nullptr;
}

FixtureSpec recipe(std::function<void(FixtureSpec&)> change) {
  FixtureSpec s;
  change(s);
  return s;
}

TEST(MediaAsset, GeneratedFilesReportTheirStreamsAndTheExactSpanOfTheirFrames) {
  const FixtureSpec cases[] = {
      {},
      recipe([](auto& s) {
        s.container = Container::mov, s.frameRateNum = 30000, s.frameRateDen = 1001, s.audio = AudioLayout::mono;
      }),
      recipe([](auto& s) { s.variableFrameRate = true; }),
      recipe([](auto& s) { s.variableFrameRate = true, s.container = Container::mov, s.seconds = 2.5; }),
      recipe([](auto& s) { s.codec = VideoCodec::mpeg4, s.container = Container::m4v, s.audio = AudioLayout::none; }),
      recipe([](auto& s) {
        s.codec = VideoCodec::mjpeg, s.container = Container::mov, s.audioCodec = testing::AudioCodec::pcm;
      }),
      recipe([](auto& s) { s.rotation = 90, s.frameRateNum = 25, s.audio = AudioLayout::surround51; }),
      recipe([](auto& s) { s.rotation = 270, s.width = 240, s.height = 320, s.sampleRate = 44100; }),
      recipe([](auto& s) { s.rotation = 180, s.gopFrames = 7, s.seconds = 1.3; }),
  };
  for (const FixtureSpec& s : cases) {
    const auto file = testing::fixture(s);
    const auto asset = openAsset(file);
    ASSERT_TRUE(asset && asset->video()) << file;
    const VideoTrack& v = *asset->video();
    const auto frames = testing::readFrames(file);
    ASSERT_EQ(static_cast<std::int64_t>(frames.size()), testing::frameCount(s)) << file;
    EXPECT_EQ(asset->duration(), frameSpan(frames))
        << file << ": " << asset->duration().toString() << " vs " << frameSpan(frames).toString();
    EXPECT_EQ(RationalTime(v.firstTimestamp * v.timeBase.num, v.timeBase.den), frames.front().time) << file;
    EXPECT_EQ(v.transform.rotationDegrees(), s.rotation) << file;
    EXPECT_EQ(v.width, s.width) << file;
    EXPECT_EQ(v.height, s.height) << file;
    if (!s.variableFrameRate) {
      EXPECT_EQ(av_cmp_q(v.frameRate, AVRational{s.frameRateNum, s.frameRateDen}), 0) << file;
    }
    ASSERT_EQ(asset->audio().has_value(), s.audio != AudioLayout::none) << file;
    if (asset->audio()) {
      EXPECT_EQ(asset->audio()->sampleRate, s.sampleRate) << file;
      const int channels = s.audio == AudioLayout::mono ? 1 : s.audio == AudioLayout::stereo ? 2 : 6;
      EXPECT_EQ(asset->audio()->channelCount, channels) << file;
    }
  }
}

// Every real file with video opens, and its duration is exactly the span of its decoded frames.
TEST(MediaAsset, RealWorldDurationsAreTheSpanOfTheDecodedFrames) {
  VANTRIX_REQUIRE_REAL_WORLD();
  int withVideo = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(*testing::realWorldDir())) {
    const auto ext = entry.path().extension();
    if (ext != ".mp4" && ext != ".mov" && ext != ".m4v") continue;
    const auto frames = testing::readFrames(entry.path());
    if (frames.empty()) continue;  // no video, or not readable at all
    ++withVideo;
    const auto asset = openAsset(entry.path());
    ASSERT_TRUE(asset && asset->video()) << entry.path();
    EXPECT_EQ(asset->duration(), frameSpan(frames))
        << entry.path() << ": " << asset->duration().toString() << " vs " << frameSpan(frames).toString();
  }
  EXPECT_GE(withVideo, 14);
}

TEST(MediaAsset, RealWorldStreamsAndTransforms) {
  VANTRIX_REQUIRE_REAL_WORLD();
  const struct {
    const char* file;
    int videoStream;
    int audioStream;  // -1: none
    int clockwise;
    AVRational sar;
  } cases[] = {
      {"androidx__media/h265_with_metadata_track.mp4", 2, 1, 90, {1, 1}},
      {"drewnoakes__metadata-extractor-images/with-gps.mov", 1, 0, 90, {1, 1}},
      {"androidx__media/pixel7_videoOnly_cleaned.mp4", 0, -1, 180, {1, 1}},
      {"androidx__media/internal_emulator_transformer_output_270_rotated.mp4", 0, 1, 270, {1, 1}},
      {"slhck__ffmpeg-normalize/test.mp4", 0, 1, 0, {4, 3}},
      {"mozilla__mp4parse-rust/video_rotation_90.mp4", 0, -1, 90, {1, 1}},
  };
  for (const auto& c : cases) {
    const auto asset = openAsset(testing::realWorldFile(c.file));
    ASSERT_TRUE(asset && asset->video()) << c.file;
    EXPECT_EQ(asset->video()->streamIndex, c.videoStream) << c.file;
    EXPECT_EQ(asset->audio() ? asset->audio()->streamIndex : -1, c.audioStream) << c.file;
    EXPECT_EQ(asset->video()->transform.rotationDegrees(), c.clockwise) << c.file;
    EXPECT_EQ(av_cmp_q(asset->video()->sampleAspectRatio, c.sar), 0) << c.file;
  }
}

// Source time zero is the first shown frame; every stream's timestamps are offset by it.
TEST(MediaAsset, SourceTimesAndStreamTimestampsConvertThroughTheFirstFrame) {
  VideoTrack v;
  v.timeBase = {1, 30000};
  v.firstTimestamp = 2002;
  v.duration = {30030, 30000};
  const MediaAsset asset("x.mp4", v, std::nullopt);
  VideoTrack half = v;
  half.timeBase = {1, 2};
  half.firstTimestamp = 1;  // half a second
  const MediaAsset coarse("y.mp4", half, std::nullopt);

  const struct {
    const MediaAsset& asset;
    RationalTime source;
    AVRational timeBase;
    std::int64_t timestamp;
  } cases[] = {
      {asset, RationalTime::zero(), {1, 30000}, 2002},
      {asset, {1, 1}, {1, 30000}, 32002},
      {asset, {1, 3}, {1, 90000}, 36006},
      {asset, RationalTime::zero(), {1, 44100}, 2943},  // 2942.94 rounds up
      {asset, {-2002, 30000}, {1, 44100}, 0},
      {coarse, {1, 4}, {1, 2}, 2},    // 1.5 ticks: ties away from zero
      {coarse, {-5, 4}, {1, 2}, -2},  // -1.5 ticks
      {coarse, {-1, 1}, {1, 2}, -1},
      {coarse, {1, 1}, {1001, 30000}, 45},  // 1.5 s in ticks of 1001/30000 s: 44.955
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.asset.timestampForSourceTime(c.source, c.timeBase), c.timestamp) << c.source.toString();
  }
  EXPECT_EQ(asset.sourceTimeForTimestamp(2002, {1, 30000}), RationalTime::zero());
  EXPECT_EQ(asset.sourceTimeForTimestamp(32002, {1, 30000}), RationalTime(1, 1));
  EXPECT_EQ(asset.sourceTimeForTimestamp(2943, {1, 44100}), RationalTime(2943, 44100) - RationalTime(2002, 30000));
}

}  // namespace
}  // namespace vantrix
