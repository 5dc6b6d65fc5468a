#include "FixtureWriter.h"
#include "MediaFixture.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/display.h>
}

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace vantrix::testing {
namespace {

namespace fs = std::filesystem;

// What libavformat sees in a file, read independently of the fixture reader.
struct Probe {
  std::string brand;
  int width = 0, height = 0, videoDelay = 0, keyframes = 0, channels = 0, sampleRate = 0;
  AVCodecID video = AV_CODEC_ID_NONE, audio = AV_CODEC_ID_NONE;
  double clockwise = 0;  // display matrix rotation, 0 <= degrees < 360
  bool attachedPicture = false;
};

Probe probe(const fs::path& file) {
  Probe p;
  AVFormatContext* input = nullptr;
  if (avformat_open_input(&input, file.c_str(), nullptr, nullptr) < 0) return p;
  if (avformat_find_stream_info(input, nullptr) >= 0) {
    if (const AVDictionaryEntry* e = av_dict_get(input->metadata, "major_brand", nullptr, 0)) p.brand = e->value;
    int videoIndex = -1;
    for (unsigned i = 0; i < input->nb_streams; ++i) {
      const AVStream* s = input->streams[i];
      const AVCodecParameters* c = s->codecpar;
      if (c->codec_type == AVMEDIA_TYPE_VIDEO && videoIndex < 0) {
        videoIndex = static_cast<int>(i);
        p.video = c->codec_id;
        p.width = c->width;
        p.height = c->height;
        p.videoDelay = c->video_delay;
        p.attachedPicture = (s->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
        if (const uint8_t* m = av_stream_get_side_data(s, AV_PKT_DATA_DISPLAYMATRIX, nullptr))
          p.clockwise = std::fmod(360 - av_display_rotation_get(reinterpret_cast<const int32_t*>(m)), 360);
      } else if (c->codec_type == AVMEDIA_TYPE_AUDIO && p.audio == AV_CODEC_ID_NONE) {
        p.audio = c->codec_id;
        p.channels = c->ch_layout.nb_channels;
        p.sampleRate = c->sample_rate;
      }
    }
    AVPacket* packet = av_packet_alloc();
    for (; av_read_frame(input, packet) >= 0; av_packet_unref(packet))
      if (packet->stream_index == videoIndex && (packet->flags & AV_PKT_FLAG_KEY)) ++p.keyframes;
    av_packet_free(&packet);
  }
  avformat_close_input(&input);
  return p;
}

// The tone each window should carry: windows of `window` seconds over `seconds` of audio.
std::vector<int> expectedSeconds(double seconds, double window) {
  std::vector<int> expected;
  for (int k = 0; (k + 1) * window <= seconds + 1e-9; ++k)
    expected.push_back(static_cast<int>(k * window) % kDistinctToneSeconds);
  return expected;
}

bool haveFfmpegCommand() { return std::system("ffmpeg -version > /dev/null 2>&1") == 0; }

struct Row {
  FixtureSpec recipe;
  const char* brand;
  AVCodecID video, audio;
  int channels;
};

TEST(MediaFixture, EveryRecipeReadsBackAsWritten) {
  using C = Container;
  using V = VideoCodec;
  using L = AudioLayout;
  using A = AudioCodec;
  constexpr AVCodecID h264 = AV_CODEC_ID_H264, mpeg4 = AV_CODEC_ID_MPEG4, mjpeg = AV_CODEC_ID_MJPEG,
                      aac = AV_CODEC_ID_AAC, pcm = AV_CODEC_ID_PCM_S16LE, none = AV_CODEC_ID_NONE;
  // clang-format off
  const Row rows[] = {
      {{.upperCaseExtension = true, .gopFrames = 12}, "isom", h264, aac, 2},
      {{.container = C::mov, .frameRateNum = 30000, .frameRateDen = 1001, .rotation = 90, .audio = L::mono,
        .audioCodec = A::pcm}, "qt  ", h264, pcm, 1},
      {{.container = C::m4v, .codec = V::mpeg4, .frameRateNum = 25, .rotation = 180, .audio = L::surround51,
        .gopFrames = 12}, "M4V ", mpeg4, aac, 6},
      {{.codec = V::mjpeg, .width = 176, .height = 144, .rotation = 270, .audio = L::none}, "isom", mjpeg, none, 0},
      {{.container = C::mov, .codec = V::mpeg4, .variableFrameRate = true}, "qt  ", mpeg4, aac, 2},
      {{.frameRateNum = 30000, .frameRateDen = 1001, .variableFrameRate = true, .rotation = 90, .audio = L::mono,
        .gopFrames = 12, .sampleRate = 44100}, "isom", h264, aac, 1},
      {{.frameRateNum = 25, .rotation = 270, .audio = L::surround51, .audioCodec = A::pcm}, "qt  ", h264, pcm, 6},
      {{.container = C::mov, .codec = V::mjpeg, .frameRateNum = 30000, .frameRateDen = 1001, .rotation = 180,
        .audioCodec = A::pcm}, "qt  ", mjpeg, pcm, 2},
      // Past the last distinct tone, so the cycle starts again.
      {{.container = C::m4v, .seconds = kDistinctToneSeconds + 1, .audio = L::mono, .audioOnly = true,
        .sampleRate = 44100}, "M4A ", none, aac, 1},
      {{.coverArtOnly = true}, "isom", mjpeg, aac, 2},
  };
  // clang-format on
  for (const auto& [recipe, brand, video, audio, channels] : rows) {
    const fs::path file = fixture(recipe);
    SCOPED_TRACE(file.filename().string());
    EXPECT_EQ(file.extension() == ".MP4", recipe.upperCaseExtension);
    const Probe p = probe(file);
    EXPECT_EQ(p.brand, brand);
    EXPECT_EQ(p.video, video);
    EXPECT_EQ(p.attachedPicture, recipe.coverArtOnly);
    EXPECT_EQ(p.audio, audio);
    EXPECT_EQ(p.channels, channels);
    if (channels > 0) {
      EXPECT_EQ(p.sampleRate, recipe.sampleRate);
      EXPECT_EQ(dominantSeconds(file, 0.25), expectedSeconds(recipe.seconds, 0.25));
    }

    const std::int64_t frames = frameCount(recipe);
    const std::vector<DecodedFrame> decoded = readFrames(file);
    ASSERT_EQ(static_cast<std::int64_t>(decoded.size()), frames);
    if (frames == 0) continue;  // no video, or only a cover picture
    const std::vector<QImage> pictures = readPictures(file);
    ASSERT_EQ(static_cast<std::int64_t>(pictures.size()), frames);
    EXPECT_EQ(p.width, recipe.width);
    EXPECT_EQ(p.height, recipe.height);
    EXPECT_EQ(p.videoDelay > 0, recipe.codec == VideoCodec::h264) << "B-frames only and always for H.264";
    EXPECT_NEAR(p.clockwise, recipe.rotation, 1e-6);
    EXPECT_EQ(p.keyframes,
              recipe.codec == VideoCodec::mjpeg ? frames : (frames + recipe.gopFrames - 1) / recipe.gopFrames);
    std::set<std::int64_t> durations;
    for (std::int64_t i = 0; i < frames; ++i) {
      const DecodedFrame& f = decoded[static_cast<std::size_t>(i)];
      EXPECT_EQ(f.barcode, std::optional(i)) << "frame " << i;
      EXPECT_EQ(f.time, frameTime(recipe, i)) << "frame " << i;
      EXPECT_EQ(f.duration, frameTime(recipe, i + 1) - f.time) << "frame " << i;
      if (!recipe.variableFrameRate) {
        EXPECT_EQ(f.time, RationalTime(i * recipe.frameRateDen, recipe.frameRateNum));
      }
      durations.insert(f.duration.convertedToTimescale(videoTimescale(recipe)).value());
      // Lossy frames shrunk to filmstrip thumbnails still name their frame.
      for (int height : {60, 40, 30})
        for (Qt::TransformationMode mode : {Qt::SmoothTransformation, Qt::FastTransformation})
          ASSERT_EQ(readBarcode(pictures[static_cast<std::size_t>(i)].scaledToHeight(height, mode)), std::optional(i))
              << "frame " << i << " at height " << height;
    }
    if (recipe.variableFrameRate) {
      EXPECT_GE(durations.size(), 5u) << "irregular frame durations";
      const double nominal = static_cast<double>(recipe.frameRateDen) / recipe.frameRateNum;
      EXPECT_NEAR(decoded.back().time.seconds() / static_cast<double>(frames - 1), nominal, 0.05 * nominal);
    }
  }
}

TEST(MediaFixture, DamagedVariantsNoLongerPlayThrough) {
  const FixtureSpec whole{.seconds = 2};
  const fs::path intact = fixture(whole);
  const std::uintmax_t size = fs::file_size(intact);
  for (Damage damage : {Damage::truncated, Damage::zeroedHeader}) {
    FixtureSpec recipe = whole;
    recipe.damage = damage;
    const fs::path file = fixture(recipe);
    SCOPED_TRACE(file.filename().string());
    EXPECT_EQ(fs::file_size(file), damage == Damage::truncated ? size / 2 : size);
    EXPECT_LT(static_cast<std::int64_t>(readFrames(file).size()), frameCount(recipe));
  }
  EXPECT_EQ(static_cast<std::int64_t>(readFrames(intact).size()), frameCount(whole)) << "the original is untouched";
}

TEST(MediaFixture, RecipesAreCachedAndWrittenIdenticallyEachTime) {
  const FixtureSpec recipe{.seconds = 1};
  const fs::path first = fixture(recipe);
  const auto written = fs::last_write_time(first);
  EXPECT_EQ(fixture(recipe), first);
  EXPECT_EQ(fs::last_write_time(first), written);
  EXPECT_NE(fixture(FixtureSpec{.seconds = 1, .gopFrames = 10}), first);

  const fs::path again = first.parent_path() / ("again" + first.extension().string());
  writeFixture(recipe, again);
  const auto bytes = [](const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  EXPECT_EQ(bytes(again), bytes(first));
}

TEST(MediaFixture, RecipesTheWriterCannotHonourAreRefused) {
  for (const FixtureSpec& recipe :
       {FixtureSpec{.rotation = 45}, FixtureSpec{.container = Container::m4v, .codec = VideoCodec::mjpeg},
        FixtureSpec{.container = Container::mov, .coverArtOnly = true},
        FixtureSpec{.audio = AudioLayout::none, .audioOnly = true}})
    EXPECT_THROW(fixture(recipe), std::runtime_error);
}

// The display matrix turns the way FFmpeg's own command line takes it: its auto-rotated first frame
// reads upright (a half turn cannot tell the directions apart).
TEST(MediaFixture, CommandLineFfmpegShowsRotatedFixturesUpright) {
  if (!haveFfmpegCommand()) GTEST_SKIP() << "no ffmpeg command line";
  for (int rotation : {90, 270}) {
    const fs::path file = fixture({.seconds = 1, .rotation = rotation, .audio = AudioLayout::none});
    const fs::path png = file.parent_path() / ("upright" + std::to_string(rotation) + ".png");
    const std::string command = "ffmpeg -v error -y -i '" + file.string() + "' -frames:v 1 '" + png.string() + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    EXPECT_EQ(readBarcode(QImage(QString::fromStdString(png.string()))), std::optional<std::int64_t>(0)) << rotation;
  }
}

// Audio from another source: second 0's 250 Hz tone, digital silence, then noise.
TEST(MediaFixture, ToneReaderTellsToneSilenceAndNoiseApart) {
  if (!haveFfmpegCommand()) GTEST_SKIP() << "no ffmpeg command line";
  const fs::path file = fixture(FixtureSpec{.seconds = 1}).parent_path() / "tone-silence-noise.mov";
  const std::string command =
      "ffmpeg -v error -y -f lavfi -i sine=frequency=250:sample_rate=48000:duration=1 "
      "-f lavfi -i anullsrc=r=48000:cl=mono:d=1 -f lavfi -i anoisesrc=r=48000:d=1:a=0.3 "
      "-filter_complex '[0][1][2]concat=n=3:v=0:a=1' -c:a pcm_s16le '" +
      file.string() + "'";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  EXPECT_EQ(dominantSeconds(file, 0.25), (std::vector<int>{0, 0, 0, 0, -1, -1, -1, -1, -2, -2, -2, -2}));
}

}  // namespace
}  // namespace vantrix::testing
