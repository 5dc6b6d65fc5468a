#include "media/VideoDecoder.h"

#include "MediaFixture.h"
#include "RealWorldMedia.h"

#include <gtest/gtest.h>

namespace vantrix {
namespace {

// Every frame's timestamp, decoding the whole stream from the start.
std::vector<std::int64_t> allTimestamps(VideoDecoder& decoder) {
  std::vector<std::int64_t> timestamps;
  for (;;) {
    const auto frame = decoder.nextFrame();
    if (!frame || *frame == nullptr) break;
    timestamps.push_back((*frame)->best_effort_timestamp);
  }
  return timestamps;
}

// Seeking to a frame's timestamp, decoding forward reaches that very frame and shows nothing after
// it first: open groups of pictures, edit lists and B-frames included.
TEST(VideoDecoder, EverySeekReachesTheFrameAtItsTarget) {
  std::vector<std::filesystem::path> files{testing::fixture({})};
  if (testing::realWorldDir()) {
    for (const char* f :
         {"androidx__media/iibbibb_editlist_videoonly.mp4", "androidx__media/pixel7_videoOnly_cleaned.mp4",
          "androidx__media/sample.mp4", "drewnoakes__metadata-extractor-images/with-gps.mov"})
      files.push_back(testing::realWorldFile(f));
  }
  for (const auto& file : files) {
    const auto asset = MediaAsset::open(file);
    ASSERT_TRUE(asset && (*asset)->video()) << file;
    auto decoder = VideoDecoder::open(*asset);
    ASSERT_TRUE(decoder) << file;
    const auto timestamps = allTimestamps(*decoder);
    ASSERT_FALSE(timestamps.empty()) << file;
    // Fifteen targets spread over the stream, the first and the last frame among them.
    std::vector<std::int64_t> targets;
    for (std::size_t i = 0; i < 15; ++i) targets.push_back(timestamps[i * (timestamps.size() - 1) / 14]);
    for (const std::int64_t target : targets) {
      ASSERT_TRUE(decoder->seek(target)) << file;
      std::optional<std::int64_t> reached;
      for (;;) {
        const auto frame = decoder->nextFrame();
        ASSERT_TRUE(frame && *frame != nullptr) << file << ": the stream ended before " << target;
        if ((*frame)->best_effort_timestamp >= target) {
          reached = (*frame)->best_effort_timestamp;
          break;
        }
      }
      EXPECT_EQ(reached, target) << file;
    }
  }
}

TEST(VideoDecoder, AStoppedDecoderReportsCancellation) {
  const auto asset = MediaAsset::open(testing::fixture({}));
  ASSERT_TRUE(asset);
  std::stop_source stop;
  auto decoder = VideoDecoder::open(*asset, stop.get_token());
  ASSERT_TRUE(decoder);
  ASSERT_TRUE(decoder->nextFrame());
  stop.request_stop();
  const auto next = decoder->nextFrame();
  // Frames already decoded may still come out; reading more input must not.
  auto last = next;
  for (int i = 0; i < 64 && last && *last != nullptr; ++i) last = decoder->nextFrame();
  ASSERT_FALSE(last);
  EXPECT_TRUE(last.error().is(MediaError::Code::cancelled)) << last.error().description();
}

}  // namespace
}  // namespace vantrix
