#include "media/VideoDecoder.h"

#include "MediaTestSupport.h"

#include <gtest/gtest.h>

namespace vantrix {
namespace {

using namespace testing;

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
