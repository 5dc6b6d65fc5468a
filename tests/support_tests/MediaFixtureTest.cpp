#include "FixtureWriter.h"
#include "MediaFixture.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/display.h>
}

#include <gtest/gtest.h>

#include <QPainter>
#include <QTransform>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <tuple>

namespace vantrix::testing {
namespace {

namespace fs = std::filesystem;
using Code = std::optional<std::int64_t>;

// What libavformat sees, read independently of the fixture reader: the brand; the video stream's codec, size,
// reordering, clockwise rotation, attached-picture flag and keyframes; the audio stream's codec, channels and rate.
using Probe = std::tuple<std::string, AVCodecID, int, int, bool, long, bool, int, AVCodecID, int, int>;

Probe probe(const fs::path& file) {
  Probe p{};
  auto& [brand, video, width, height, delay, clockwise, attached, keyframes, audio, channels, rate] = p;
  AVFormatContext* input = nullptr;
  if (avformat_open_input(&input, file.c_str(), nullptr, nullptr) < 0) return p;
  EXPECT_GE(avformat_find_stream_info(input, nullptr), 0);
  if (const AVDictionaryEntry* e = av_dict_get(input->metadata, "major_brand", nullptr, 0)) brand = e->value;
  const int v = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  const int a = av_find_best_stream(input, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
  if (v >= 0) {
    const AVStream* s = input->streams[v];
    std::tie(video, width, height, delay) =
        std::tuple(s->codecpar->codec_id, s->codecpar->width, s->codecpar->height, s->codecpar->video_delay > 0);
    attached = (s->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
    if (const uint8_t* m = av_stream_get_side_data(s, AV_PKT_DATA_DISPLAYMATRIX, nullptr))
      clockwise = std::lround(std::fmod(360 - av_display_rotation_get(reinterpret_cast<const int32_t*>(m)), 360));
  }
  if (a >= 0) {
    const AVCodecParameters* c = input->streams[a]->codecpar;
    std::tie(audio, channels, rate) = std::tuple(c->codec_id, c->ch_layout.nb_channels, c->sample_rate);
  }
  AVPacket* packet = av_packet_alloc();
  for (; av_read_frame(input, packet) >= 0; av_packet_unref(packet))
    keyframes += packet->stream_index == v && (packet->flags & AV_PKT_FLAG_KEY);
  av_packet_free(&packet);
  avformat_close_input(&input);
  return p;
}

// Each recipe as libavformat sees it, and as the fixture reader reads it back: every frame's barcode, exact time and
// duration (irregular at a variable rate), the tone of each quarter second.
TEST(MediaFixture, EveryRecipeReadsBackAsWritten) {
  using C = Container;
  using V = VideoCodec;
  using L = AudioLayout;
  constexpr AVCodecID h264 = AV_CODEC_ID_H264, mpeg4 = AV_CODEC_ID_MPEG4, mjpeg = AV_CODEC_ID_MJPEG,
                      aac = AV_CODEC_ID_AAC, pcm = AV_CODEC_ID_PCM_S16LE, none = AV_CODEC_ID_NONE;
  constexpr AudioCodec kPcm = AudioCodec::pcm;
  // clang-format off
  const std::tuple<FixtureSpec, std::string, AVCodecID, AVCodecID, int> rows[] = {
      {{.upperCaseExtension = true, .gopFrames = 12}, "isom", h264, aac, 2},
      {{.container = C::mov, .frameRateNum = 30000, .frameRateDen = 1001, .rotation = 90, .audio = L::mono,
        .audioCodec = kPcm}, "qt  ", h264, pcm, 1},
      {{.container = C::m4v, .codec = V::mpeg4, .frameRateNum = 25, .rotation = 180, .audio = L::surround51,
        .gopFrames = 12}, "M4V ", mpeg4, aac, 6},
      {{.codec = V::mjpeg, .width = 176, .height = 144, .rotation = 270, .audio = L::none}, "isom", mjpeg, none, 0},
      {{.container = C::mov, .codec = V::mpeg4, .variableFrameRate = true}, "qt  ", mpeg4, aac, 2},
      {{.frameRateNum = 30000, .frameRateDen = 1001, .variableFrameRate = true, .rotation = 90, .audio = L::mono,
        .gopFrames = 12, .sampleRate = 44100}, "isom", h264, aac, 1},
      {{.frameRateNum = 25, .rotation = 270, .audio = L::surround51, .audioCodec = kPcm}, "qt  ", h264, pcm, 6},
      {{.container = C::mov, .codec = V::mjpeg, .frameRateNum = 30000, .frameRateDen = 1001, .rotation = 180,
        .audioCodec = kPcm}, "qt  ", mjpeg, pcm, 2},
      // Past the last distinct tone, so the cycle starts again.
      {{.container = C::m4v, .seconds = kDistinctToneSeconds + 1, .audio = L::mono, .audioOnly = true,
        .sampleRate = 44100}, "M4A ", none, aac, 1},
      {{.coverArtOnly = true}, "isom", mjpeg, aac, 2},
  };
  // clang-format on
  for (const auto& [r, brand, video, audio, channels] : rows) {
    const fs::path file = fixture(r);
    SCOPED_TRACE(file.filename().string());
    EXPECT_EQ(file.extension() == ".MP4", r.upperCaseExtension);
    const std::int64_t frames = frameCount(r);
    const int keyframes = r.codec == V::mjpeg ? int(frames) : int(frames + r.gopFrames - 1) / r.gopFrames;
    const bool reordered = frames > 0 && r.codec == V::h264;  // B-frames only and always for H.264
    const int cover = r.coverArtOnly;                         // one 160 x 160 picture
    EXPECT_EQ(probe(file), Probe(brand, video, frames > 0 ? r.width : 160 * cover, frames > 0 ? r.height : 160 * cover,
                                 reordered, r.rotation, r.coverArtOnly, frames > 0 ? keyframes : cover, audio, channels,
                                 channels > 0 ? r.sampleRate : 0));
    std::vector<int> quarters;
    for (int k = 0; channels > 0 && (k + 1) * 0.25 <= r.seconds; ++k) quarters.push_back(k / 4 % kDistinctToneSeconds);
    EXPECT_EQ(dominantSeconds(file, 0.25), quarters);

    const std::vector<DecodedFrame> decoded = readFrames(file);
    ASSERT_EQ(std::ssize(decoded), frames);
    std::set<double> durations;
    for (std::int64_t i = 0; i < frames; ++i) {
      const DecodedFrame& f = decoded[static_cast<std::size_t>(i)];
      EXPECT_EQ(f.barcode, Code(i)) << "frame " << i;
      EXPECT_EQ(f.time, frameTime(r, i)) << "frame " << i;
      EXPECT_EQ(f.duration, frameTime(r, i + 1) - f.time) << "frame " << i;
      EXPECT_TRUE(r.variableFrameRate || f.time == RationalTime(i * r.frameRateDen, r.frameRateNum)) << i;
      durations.insert(f.duration.seconds());
    }
    if (r.variableFrameRate) {
      EXPECT_GE(durations.size(), 5u) << "irregular frame durations";
      const double nominal = static_cast<double>(r.frameRateDen) / r.frameRateNum, mean = decoded.back().time.seconds();
      EXPECT_NEAR(mean / static_cast<double>(frames - 1), nominal, 0.05 * nominal) << "on average the nominal rate";
    }
  }
}

// Damaged copies no longer play through and leave the original whole; recipes are cached and written to the same
// bytes each time; recipes the writer cannot honour are refused.
TEST(MediaFixture, DamageCacheAndRefusals) {
  const FixtureSpec whole{.seconds = 1};
  const fs::path intact = fixture(whole);
  const std::uintmax_t size = fs::file_size(intact);
  for (Damage damage : {Damage::truncated, Damage::zeroedHeader}) {
    FixtureSpec recipe = whole;
    recipe.damage = damage;
    EXPECT_EQ(fs::file_size(fixture(recipe)), damage == Damage::truncated ? size / 2 : size);
    EXPECT_LT(std::ssize(readFrames(fixture(recipe))), frameCount(recipe));
  }
  EXPECT_EQ(std::ssize(readFrames(intact)), frameCount(whole));

  const auto written = fs::last_write_time(intact);
  EXPECT_EQ(fixture(whole), intact);
  EXPECT_EQ(fs::last_write_time(intact), written);
  EXPECT_NE(fixture(FixtureSpec{.seconds = 1, .gopFrames = 10}), intact);
  const fs::path again = intact.parent_path() / ("again" + intact.extension().string());
  writeFixture(whole, again);
  const auto bytes = [](const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  EXPECT_EQ(bytes(again), bytes(intact));

  for (const FixtureSpec& recipe :
       {FixtureSpec{.rotation = 45}, FixtureSpec{.container = Container::m4v, .codec = VideoCodec::mjpeg},
        FixtureSpec{.container = Container::mov, .coverArtOnly = true},
        FixtureSpec{.audio = AudioLayout::none, .audioOnly = true}})
    EXPECT_THROW(fixture(recipe), std::runtime_error);
}

// FFmpeg's command line shows the first frames upright, so the display matrix turns the way players take it (a half
// turn cannot tell the directions apart).
TEST(MediaFixture, CommandLineFfmpegShowsRotatedFixturesUpright) {
  if (std::system("ffmpeg -version > /dev/null 2>&1") != 0) GTEST_SKIP() << "no ffmpeg command line";
  for (int rotation : {90, 270}) {
    const fs::path file = fixture({.seconds = 1, .rotation = rotation, .audio = AudioLayout::none});
    const fs::path png = file.parent_path() / ("upright" + std::to_string(rotation) + ".png");
    const std::string command = "ffmpeg -v error -y -i '" + file.string() + "' -frames:v 1 '" + png.string() + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    EXPECT_EQ(readBarcode(QImage(QString::fromStdString(png.string()))), Code(0)) << rotation;
  }
}

// Every value reads back upright at every size and shape, also through black bars, and never turned or mirrored (the
// check bits alone would let one wrong view in a thousand through; many values catch a guard that fails); noise never.
TEST(Barcode, ReadsUprightCodesOnly) {
  const QTransform wrongViews[] = {QTransform().rotate(90),       QTransform().rotate(180),
                                   QTransform().rotate(270),      QTransform(-1, 0, 0, 1, 0, 0),
                                   QTransform(1, 0, 0, -1, 0, 0), QTransform(0, 1, 1, 0, 0, 0),
                                   QTransform(0, -1, -1, 0, 0, 0)};
  const auto sampleValues = [](int randomCount) {
    std::vector<std::int64_t> values{0, 1, 2, 29, 30, 89, 1000, 65535, kBarcodeLimit - 1};
    std::mt19937 random(7);
    while (randomCount-- > 0)
      values.push_back(std::uniform_int_distribution<std::int64_t>(0, kBarcodeLimit - 1)(random));
    return values;
  };
  const auto readsOnlyUpright = [&](const QImage& upright, std::int64_t value) {
    if (readBarcode(upright) != Code(value)) return false;
    return std::ranges::none_of(wrongViews,
                                [&](const QTransform& t) { return readBarcode(upright.transformed(t)).has_value(); });
  };
  for (std::int64_t value : sampleValues(20000))
    ASSERT_TRUE(readsOnlyUpright(drawBarcode(value, 24, 24), value)) << value;
  for (std::int64_t value : sampleValues(300))
    for (const QSize size :
         {QSize(320, 240), QSize(240, 320), QSize(64, 48), QSize(53, 40), QSize(30, 40), QSize(12, 12)}) {
      const QImage upright = drawBarcode(value, size.width(), size.height());
      // The larger ones also shrunk to a filmstrip's height.
      const QImage small = upright.scaledToHeight(std::min(40, size.height()), Qt::SmoothTransformation);
      for (const QImage& picture : {upright, small})
        ASSERT_TRUE(readsOnlyUpright(picture, value)) << value << " drawn at " << size.width() << "x" << size.height()
                                                      << " seen at " << picture.width() << "x" << picture.height();
    }
  EXPECT_EQ(readBarcode(drawBarcode(kBarcodeLimit - 1, 1920, 1080)), Code(kBarcodeLimit - 1));
  QImage view(480, 360, QImage::Format_RGB32), noise = view;
  view.fill(Qt::black);
  QPainter(&view).drawImage(QRect(105, 0, 270, 360), drawBarcode(4242, 240, 320));
  EXPECT_EQ(readBarcode(view), Code(4242));
  EXPECT_EQ(readBarcode(view.scaledToHeight(48, Qt::SmoothTransformation)), Code(4242));
  std::mt19937 random(3);
  for (int y = 0; y < noise.height(); ++y)
    for (int x = 0; x < noise.width(); ++x) noise.setPixel(x, y, random() % 2 ? 0xffffffff : 0xff000000);
  EXPECT_EQ(readBarcode(noise), std::nullopt);
  EXPECT_EQ(readBarcode(QImage()), std::nullopt);
}

}  // namespace
}  // namespace vantrix::testing
