#include "media/ThumbnailGenerator.h"

#include "MediaTestSupport.h"

#include <gtest/gtest.h>

namespace vantrix {
namespace {

using namespace testing;
using Thumbnail = ThumbnailGenerator::Thumbnail;

constexpr double kHeight = 64;

struct Outcome {
  std::vector<Thumbnail> thumbnails;
  ThumbnailGenerator::Summary summary;
};

Outcome generate(const std::shared_ptr<const MediaAsset>& asset, const std::vector<RationalTime>& times,
                 double height = kHeight, double scale = 1,
                 std::function<void(const Thumbnail&, std::stop_source&)> onEach = {}) {
  Outcome run;
  std::stop_source stop;
  run.summary = ThumbnailGenerator(asset).generate(times, height, scale, stop.get_token(), [&](Thumbnail&& t) {
    run.thumbnails.push_back(std::move(t));
    if (onEach) onEach(run.thumbnails.back(), stop);
  });
  return run;
}

std::vector<RationalTime> millis(std::initializer_list<std::int64_t> values) {
  std::vector<RationalTime> times;
  for (const auto v : values) times.push_back(ms(v));
  return times;
}

// Each thumbnail shows a frame of the file no farther than half a second from its time; a time
// with no frame that near is skipped and the others still arrive. Rotated footage reads upright,
// in portrait for quarter turns.
TEST(ThumbnailGenerator, EachImageIsAFrameNearItsTimeShownUpright) {
  const auto times = millis({0, 16, 60000, 17, 480, 500, 1000, -3000, 1234, 1985, 2500, 2999});
  const FixtureSpec cases[] = {
      {},
      {.variableFrameRate = true},
      {.container = Container::mov, .frameRateNum = 30000, .frameRateDen = 1001, .gopFrames = 45},
      {.container = Container::m4v, .codec = VideoCodec::mpeg4, .frameRateNum = 24},
      {.rotation = 90},
      {.rotation = 180},
      {.rotation = 270},
  };
  for (const FixtureSpec& recipe : cases) {
    const auto file = fixture(recipe);
    SCOPED_TRACE(file);
    const auto frames = readFrames(file);
    std::vector<int> indices;
    for (const Thumbnail& t : generate(openAsset(file), times).thumbnails) {
      indices.push_back(t.index);
      const auto code = readBarcode(t.image);
      ASSERT_TRUE(code) << "at " << times[t.index].toString() << ": no upright code";
      const RationalTime asked = times[t.index] + frames.front().time;  // source time zero is the first frame
      const auto gap = [&](RationalTime a) { return a < asked ? asked - a : a - asked; };
      const RationalTime shown = gap(frameTime(recipe, *code));
      EXPECT_LE(shown, ThumbnailGenerator::kTolerance) << "frame " << *code;
      EXPECT_LT(*code, static_cast<std::int64_t>(frames.size()));
      const bool portrait = recipe.rotation == 90 || recipe.rotation == 270;
      EXPECT_EQ(t.image.size(), portrait ? QSize(48, 64) : QSize(85, 64));  // 320 x 240 stored
    }
    EXPECT_EQ(indices, (std::vector{0, 1, 3, 4, 5, 6, 8, 9, 10, 11}));
  }
}

// Stopping while the second image is delivered decodes nothing more than asking for two images.
TEST(ThumbnailGenerator, StoppingAfterTwoImagesDecodesNoFurtherFrame) {
  const auto asset = openAsset(fixture({}));
  const auto all = millis({500, 1500, 2500, 2900});
  const Outcome stopped = generate(asset, all, kHeight, 1, [](const Thumbnail& t, std::stop_source& stop) {
    if (t.index == 1) stop.request_stop();
  });
  const Outcome two = generate(asset, {all[0], all[1]});
  EXPECT_EQ(stopped.thumbnails.size(), 2u);
  EXPECT_EQ(stopped.summary.framesDecoded, two.summary.framesDecoded);
  EXPECT_GT(generate(asset, all).summary.framesDecoded, two.summary.framesDecoded)
      << "the later images need more frames";
}

// Nothing asked, nothing decoded; a file that is gone delivers nothing.
TEST(ThumbnailGenerator, AnEmptyListEndsAtOnce) {
  const auto asset = openAsset(fixture({}));
  const Outcome run = generate(asset, {});
  EXPECT_TRUE(run.thumbnails.empty());
  EXPECT_EQ(run.summary.framesDecoded, 0);
  const auto moved = std::make_shared<const MediaAsset>("/nonexistent/gone.mp4", asset->video(), asset->audio());
  EXPECT_TRUE(generate(moved, millis({0, 1000})).thumbnails.empty());
}

TEST(ThumbnailGenerator, HeightsBelowOnePixelGiveOnePixel) {
  const auto asset = openAsset(fixture({}));
  const struct {
    double height, scale;
    QSize size;
  } cases[] = {{0, 2, {1, 1}}, {0.3, 1, {1, 1}}, {32, 2, {85, 64}}, {45, 1.5, {91, 68}}, {-5, 1, {1, 1}}};
  for (const auto& c : cases) {
    const Outcome run = generate(asset, millis({1000}), c.height, c.scale);
    ASSERT_EQ(run.thumbnails.size(), 1u) << c.height << " x " << c.scale;
    EXPECT_EQ(run.thumbnails[0].image.size(), c.size) << c.height << " x " << c.scale;
  }
}

// Non-square pixels and rotation decide the shape; the real files carry both.
TEST(ThumbnailGenerator, RealWorldShapesFollowTheDisplayAspect) {
  if (!haveRealWorld()) GTEST_SKIP() << "no real-world media folder";
  const struct {
    const char* file;
    QSize size;
  } cases[] = {
      {"slhck__ffmpeg-normalize/test.mp4", {160, 90}},                   // 320 x 240 at 4:3 pixels
      {"drewnoakes__metadata-extractor-images/with-gps.mov", {51, 90}},  // 568 x 320 turned
      {"androidx__media/sample_edit_list.mp4", {51, 90}},                // HEVC 10-bit, turned
      {"androidx__media/iibbibb_editlist_videoonly.mp4", {110, 90}},     // open groups of pictures
      {"Vanilagy__mediabunny/cursed-vfr.mp4", {196, 90}},
  };
  for (const auto& c : cases) {
    const auto asset = openAsset(realWorldFile(c.file));
    ASSERT_TRUE(asset) << c.file;
    const auto times = std::vector<RationalTime>{RationalTime::zero(), asset->duration().dividedBy(2)};
    const Outcome run = generate(asset, times, 90);
    ASSERT_EQ(run.thumbnails.size(), 2u) << c.file;
    for (const auto& t : run.thumbnails) EXPECT_EQ(t.image.size(), c.size) << c.file;
  }
}

}  // namespace
}  // namespace vantrix
