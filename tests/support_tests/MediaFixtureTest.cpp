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

// What libavformat sees in a file, read independently of the fixture reader.
struct Probe {
  bool opened = false;
  std::string brand;
  int videoStreams = 0;
  AVCodecID video = AV_CODEC_ID_NONE;
  int width = 0, height = 0, videoDelay = 0;
  double clockwise = 0;  // display matrix rotation, 0 <= degrees < 360
  bool attachedPicture = false;
  int keyframes = 0;
  AVCodecID audio = AV_CODEC_ID_NONE;
  int channels = 0, sampleRate = 0;
};

Probe probe(const std::filesystem::path& file) {
  Probe p;
  AVFormatContext* input = nullptr;
  if (avformat_open_input(&input, file.c_str(), nullptr, nullptr) < 0) return p;
  if (avformat_find_stream_info(input, nullptr) >= 0) {
    p.opened = true;
    if (const AVDictionaryEntry* e = av_dict_get(input->metadata, "major_brand", nullptr, 0)) p.brand = e->value;
    int videoIndex = -1;
    for (unsigned i = 0; i < input->nb_streams; ++i) {
      const AVStream* s = input->streams[i];
      const AVCodecParameters* c = s->codecpar;
      if (c->codec_type == AVMEDIA_TYPE_VIDEO) {
        if (++p.videoStreams > 1) continue;
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
    while (av_read_frame(input, packet) >= 0) {
      if (packet->stream_index == videoIndex && (packet->flags & AV_PKT_FLAG_KEY)) ++p.keyframes;
      av_packet_unref(packet);
    }
    av_packet_free(&packet);
  }
  avformat_close_input(&input);
  return p;
}

int channelsOf(AudioLayout layout) {
  switch (layout) {
    case AudioLayout::none: return 0;
    case AudioLayout::mono: return 1;
    case AudioLayout::stereo: return 2;
    case AudioLayout::surround51: return 6;
  }
  return -1;
}

// The tone each window should carry: windows of `window` seconds over `seconds` of audio.
std::vector<int> expectedSeconds(double seconds, double window) {
  std::vector<int> expected;
  for (int k = 0; (k + 1) * window <= seconds + 1e-9; ++k) expected.push_back(static_cast<int>(k * window));
  return expected;
}

struct Row {
  FixtureSpec recipe;
  const char* brand;
  AVCodecID video;
  AVCodecID audio;
};

FixtureSpec recipe(Container container, VideoCodec codec, int num, int den, bool vfr, int rotation, AudioLayout audio,
                   AudioCodec audioCodec) {
  FixtureSpec s;
  s.container = container;
  s.codec = codec;
  s.frameRateNum = num;
  s.frameRateDen = den;
  s.variableFrameRate = vfr;
  s.rotation = rotation;
  s.audio = audio;
  s.audioCodec = audioCodec;
  s.seconds = 2;
  s.gopFrames = 12;
  return s;
}

std::vector<Row> recipeTable() {
  using C = Container;
  using V = VideoCodec;
  using L = AudioLayout;
  using A = AudioCodec;
  std::vector<Row> rows = {
      {recipe(C::mp4, V::h264, 30, 1, false, 0, L::stereo, A::aac), "isom", AV_CODEC_ID_H264, AV_CODEC_ID_AAC},
      {recipe(C::mov, V::h264, 30000, 1001, false, 90, L::mono, A::pcm), "qt  ", AV_CODEC_ID_H264,
       AV_CODEC_ID_PCM_S16LE},
      {recipe(C::m4v, V::mpeg4, 25, 1, false, 180, L::surround51, A::aac), "M4V ", AV_CODEC_ID_MPEG4, AV_CODEC_ID_AAC},
      {recipe(C::mp4, V::mjpeg, 30, 1, false, 270, L::none, A::aac), "isom", AV_CODEC_ID_MJPEG, AV_CODEC_ID_NONE},
      {recipe(C::mov, V::mpeg4, 30, 1, true, 0, L::stereo, A::aac), "qt  ", AV_CODEC_ID_MPEG4, AV_CODEC_ID_AAC},
      {recipe(C::mp4, V::h264, 30000, 1001, true, 90, L::mono, A::aac), "isom", AV_CODEC_ID_H264, AV_CODEC_ID_AAC},
      {recipe(C::mp4, V::h264, 25, 1, false, 270, L::surround51, A::pcm), "qt  ", AV_CODEC_ID_H264,
       AV_CODEC_ID_PCM_S16LE},
      {recipe(C::mov, V::mjpeg, 30000, 1001, false, 180, L::stereo, A::pcm), "qt  ", AV_CODEC_ID_MJPEG,
       AV_CODEC_ID_PCM_S16LE},
  };
  rows[0].recipe.upperCaseExtension = true;
  rows[3].recipe.width = 176;
  rows[3].recipe.height = 144;
  rows[5].recipe.sampleRate = 44100;
  return rows;
}

TEST(MediaFixture, EveryRecipeReadsBackAsWritten) {
  for (const Row& row : recipeTable()) {
    const FixtureSpec& recipe = row.recipe;
    const std::filesystem::path file = fixture(recipe);
    SCOPED_TRACE(file.filename().string());
    EXPECT_EQ(file.extension() == ".MP4", recipe.upperCaseExtension);

    const Probe p = probe(file);
    ASSERT_TRUE(p.opened);
    EXPECT_EQ(p.brand, row.brand);
    EXPECT_EQ(p.videoStreams, 1);
    EXPECT_EQ(p.video, row.video);
    EXPECT_EQ(p.width, recipe.width);
    EXPECT_EQ(p.height, recipe.height);
    EXPECT_EQ(p.videoDelay > 0, recipe.codec == VideoCodec::h264) << "B-frames only and always for H.264";
    EXPECT_NEAR(p.clockwise, recipe.rotation, 1e-6);
    const std::int64_t frames = frameCount(recipe);
    EXPECT_EQ(p.keyframes, recipe.codec == VideoCodec::mjpeg ? frames : (frames + recipe.gopFrames - 1) / recipe.gopFrames);
    EXPECT_EQ(p.audio, row.audio);
    EXPECT_EQ(p.channels, channelsOf(recipe.audio));
    if (recipe.audio != AudioLayout::none) {
      EXPECT_EQ(p.sampleRate, recipe.sampleRate);
    }

    const std::vector<DecodedFrame> decoded = readFrames(file);
    ASSERT_EQ(static_cast<std::int64_t>(decoded.size()), frames);
    std::set<std::int64_t> durations;
    for (std::int64_t i = 0; i < frames; ++i) {
      const DecodedFrame& f = decoded[static_cast<std::size_t>(i)];
      EXPECT_EQ(f.barcode, std::optional<std::int64_t>(i)) << "frame " << i;
      EXPECT_EQ(f.time, frameTime(recipe, i)) << "frame " << i << " at " << f.time.toString();
      EXPECT_EQ(f.duration, frameTime(recipe, i + 1) - frameTime(recipe, i)) << "frame " << i;
      if (!recipe.variableFrameRate) {
        EXPECT_EQ(f.time, RationalTime(i * recipe.frameRateDen, recipe.frameRateNum)) << "frame " << i;
      }
      durations.insert(f.duration.convertedToTimescale(videoTimescale(recipe)).value());
    }
    if (recipe.variableFrameRate) {
      EXPECT_GE(durations.size(), 5u) << "irregular frame durations";
      const double nominal = static_cast<double>(recipe.frameRateDen) / recipe.frameRateNum;
      EXPECT_NEAR(decoded.back().time.seconds() / static_cast<double>(frames - 1), nominal, 0.05 * nominal);
    } else {
      EXPECT_EQ(durations.size(), 1u);
    }

    if (recipe.audio != AudioLayout::none) {
      EXPECT_EQ(dominantSeconds(file, 0.25), expectedSeconds(recipe.seconds, 0.25));
    }
  }
}

TEST(MediaFixture, FilesWithoutRealVideoCarryOnlyTheirTone) {
  FixtureSpec audioOnly;
  audioOnly.container = Container::m4v;
  audioOnly.audioOnly = true;
  audioOnly.audio = AudioLayout::mono;
  FixtureSpec cover;
  cover.coverArtOnly = true;
  for (const FixtureSpec& recipe : {audioOnly, cover}) {
    const std::filesystem::path file = fixture(recipe);
    SCOPED_TRACE(file.filename().string());
    const Probe p = probe(file);
    ASSERT_TRUE(p.opened);
    EXPECT_EQ(p.videoStreams, recipe.coverArtOnly ? 1 : 0);
    EXPECT_EQ(p.attachedPicture, recipe.coverArtOnly);
    EXPECT_EQ(frameCount(recipe), 0);
    EXPECT_TRUE(readFrames(file).empty());
    EXPECT_EQ(dominantSeconds(file, 0.5), expectedSeconds(recipe.seconds, 0.5));
  }
}

TEST(MediaFixture, DamagedVariantsNoLongerPlayThrough) {
  FixtureSpec whole;
  whole.seconds = 2;
  const std::filesystem::path intact = fixture(whole);
  const std::uintmax_t size = std::filesystem::file_size(intact);
  for (Damage damage : {Damage::truncated, Damage::zeroedHeader}) {
    FixtureSpec recipe = whole;
    recipe.damage = damage;
    const std::filesystem::path file = fixture(recipe);
    SCOPED_TRACE(file.filename().string());
    EXPECT_NE(file, intact);
    EXPECT_EQ(std::filesystem::file_size(file), damage == Damage::truncated ? size / 2 : size);
    EXPECT_LT(static_cast<std::int64_t>(readFrames(file).size()), frameCount(recipe));
  }
  EXPECT_EQ(static_cast<std::int64_t>(readFrames(intact).size()), frameCount(whole)) << "the original is untouched";
}

TEST(MediaFixture, RecipesAreCachedAndWrittenIdenticallyEachTime) {
  FixtureSpec recipe;
  recipe.seconds = 1;
  const std::filesystem::path first = fixture(recipe);
  const auto written = std::filesystem::last_write_time(first);
  EXPECT_EQ(fixture(recipe), first);
  EXPECT_EQ(std::filesystem::last_write_time(first), written);
  FixtureSpec other = recipe;
  other.gopFrames = 10;
  EXPECT_NE(fixture(other), first);

  const std::filesystem::path again = first.parent_path() / ("again" + first.extension().string());
  writeFixture(recipe, again);
  auto bytes = [](const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  EXPECT_EQ(bytes(again), bytes(first)) << "deterministic output";
}

TEST(MediaFixture, RecipesTheWriterCannotHonourAreRefused) {
  FixtureSpec tilted;
  tilted.rotation = 45;
  FixtureSpec jpegInM4v;
  jpegInM4v.container = Container::m4v;
  jpegInM4v.codec = VideoCodec::mjpeg;
  FixtureSpec coverInMov;
  coverInMov.container = Container::mov;
  coverInMov.coverArtOnly = true;
  FixtureSpec silentAudioOnly;
  silentAudioOnly.audioOnly = true;
  silentAudioOnly.audio = AudioLayout::none;
  for (const FixtureSpec& recipe : {tilted, jpegInM4v, coverInMov, silentAudioOnly})
    EXPECT_THROW(fixture(recipe), std::runtime_error);
}

// The display matrix means what FFmpeg's own command line takes it to mean: its auto-rotated
// first frame reads upright.
TEST(MediaFixture, CommandLineFfmpegShowsRotatedFixturesUpright) {
  if (std::system("ffmpeg -version > /dev/null 2>&1") != 0) GTEST_SKIP() << "no ffmpeg command line";
  for (int rotation : {90, 180, 270}) {
    FixtureSpec recipe;
    recipe.rotation = rotation;
    recipe.seconds = 1;
    recipe.audio = AudioLayout::none;
    const std::filesystem::path file = fixture(recipe);
    const std::filesystem::path png = file.parent_path() / ("upright" + std::to_string(rotation) + ".png");
    const std::string command = "ffmpeg -v error -y -i '" + file.string() + "' -frames:v 1 '" + png.string() + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    EXPECT_EQ(readBarcode(QImage(QString::fromStdString(png.string()))), std::optional<std::int64_t>(0))
        << "rotation " << rotation;
  }
}

TEST(MediaFixture, EverySecondsToneIsRecognisedAndTheCycleRepeats) {
  FixtureSpec recipe;
  recipe.audioOnly = true;
  recipe.audio = AudioLayout::mono;
  recipe.sampleRate = 44100;
  recipe.seconds = kDistinctToneSeconds + 1;
  std::vector<int> expected = expectedSeconds(kDistinctToneSeconds, 1);
  expected.push_back(0);
  EXPECT_EQ(dominantSeconds(fixture(recipe), 1), expected);
}

// Silence and noise from another source: a 250 Hz tone (second 0's), digital silence, then noise.
TEST(MediaFixture, ToneReaderTellsToneSilenceAndNoiseApart) {
  if (std::system("ffmpeg -version > /dev/null 2>&1") != 0) GTEST_SKIP() << "no ffmpeg command line";
  FixtureSpec any;
  any.seconds = 1;
  const std::filesystem::path file = fixture(any).parent_path() / "tone-silence-noise.mov";
  const std::string command =
      "ffmpeg -v error -y -f lavfi -i sine=frequency=250:sample_rate=48000:duration=1 "
      "-f lavfi -i anullsrc=r=48000:cl=mono:d=1 -f lavfi -i anoisesrc=r=48000:d=1:a=0.3 "
      "-filter_complex '[0][1][2]concat=n=3:v=0:a=1' -c:a pcm_s16le '" + file.string() + "'";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  EXPECT_EQ(dominantSeconds(file, 0.25), (std::vector<int>{0, 0, 0, 0, -1, -1, -1, -1, -2, -2, -2, -2}));
}

}  // namespace
}  // namespace vantrix::testing
