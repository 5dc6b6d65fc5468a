// The media foundation: errors, opening a video, the composition plan and filmstrip thumbnails.

#include "media/LoadedVideo.h"
#include "media/MediaInput.h"
#include "media/ThumbnailGenerator.h"

#include "LogCapture.h"
#include "MediaTestSupport.h"

extern "C" {
#include <libavutil/error.h>
}

#include <QTemporaryDir>

#include <fstream>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace testing;
using CompositionBuilder::Range;
using Thumbnail = ThumbnailGenerator::Thumbnail;

TEST(AppError, DescriptionsAreTheAlertTextsAndEqualityIgnoresThePayload) {
  const std::pair<AppError, std::string_view> cases[] = {
      {AppError::exportFailed(MediaError::posix(EIO, "Writing")), "The export didn't finish. Try exporting again."},
      {AppError::unsupportedFile(), "This file's format isn't supported. Vantrix opens .mov, .mp4, and .m4v."},
      {AppError::compositionFailed(), "Vantrix couldn't prepare this video. Try opening it again."},
      {AppError::diskFull(), "There isn't enough disk space to export. Free up space and try again."},
      {AppError::fileMoved(),
       "Vantrix can't find this file. It may have been moved or deleted. Open it again from its current location."},
  };
  for (const auto& [error, text] : cases) EXPECT_EQ(error.description(), text) << toString(error.kind());
  const AppError b = AppError::exportFailed(MediaError::ffmpeg(AVERROR_INVALIDDATA, "Muxing b"));
  EXPECT_EQ(AppError::exportFailed(MediaError::posix(EIO, "Writing a")), b);
  EXPECT_NE(AppError::diskFull(), AppError::fileMoved());
  ASSERT_NE(b.underlying(), nullptr);
  EXPECT_EQ(b.underlying()->code(), AVERROR_INVALIDDATA) << "the cause travels with the error";
}

// Accepted whatever the container, codec, frame timing and case of the extension, silently, with a
// duration exactly the span of the decoded frames; two loads of one file get two ids.
TEST(LoadedVideo, FilesOpenWithTheExactSpanOfTheirFrames) {
  const fs::path files[] = {
      fixture({.upperCaseExtension = true}),  // .MP4
      fixture({.container = Container::mov, .frameRateNum = 30000, .frameRateDen = 1001}),
      fixture({.container = Container::m4v, .codec = VideoCodec::mpeg4, .audio = AudioLayout::none}),
      fixture({.variableFrameRate = true}),
      fixture({.container = Container::mov, .variableFrameRate = true, .seconds = 2.5}),
      fixture({.container = Container::mov, .codec = VideoCodec::mjpeg, .audioCodec = AudioCodec::pcm}),
      fixture({.frameRateNum = 25, .rotation = 90, .audio = AudioLayout::surround51}),
      fixture({.seconds = 1.3, .rotation = 180, .gopFrames = 7}),
  };
  for (const fs::path& file : files) {
    LogCapture log;
    const auto video = LoadedVideo::load(file);
    ASSERT_TRUE(video) << file;
    EXPECT_EQ(video->path, file);
    EXPECT_TRUE(log.messages("vantrix.media").isEmpty()) << log.messages("vantrix.media").join("; ").toStdString();
    EXPECT_EQ(video->asset->duration(), frameSpan(readFrames(file))) << file;
  }
  const auto first = LoadedVideo::load(files[0]), second = LoadedVideo::load(files[0]);
  ASSERT_TRUE(first && second);
  EXPECT_NE(first->id, second->id);
}

TEST(LoadedVideo, RefusedFilesGiveTheirErrorAndLogLine) {
  QTemporaryDir dir;
  const auto in = [&](const char* name) { return fs::path(dir.filePath(name).toStdString()); };
  const auto write = [&](const char* name, const char* bytes) {
    std::ofstream(in(name)) << bytes;
    return in(name);
  };
  const std::vector<const char*> kRejected{"Rejecting unsupported file: "}, kNoVideo{"Asset has no usable video: "},
      kDamaged{"Failed to load asset: ", "Asset has no usable video: "};
  const AppError kUnsupported = AppError::unsupportedFile();
  const struct {
    const char* what;
    fs::path path;
    AppError refusal;
    std::vector<const char*> lines;  // one of these, followed by the file name
  } cases[] = {
      // Refused by name alone: were the disk asked, these would be missing files.
      {"second extension .txt", in("clip.mp4.txt"), kUnsupported, kRejected},
      {"no extension", in("clip"), kUnsupported, kRejected},
      {"deleted", in("gone.mp4"), AppError::fileMoved(), {"Supported file missing on disk: "}},
      {"audio-only .m4v", fixture({.container = Container::m4v, .audioOnly = true}), kUnsupported, kNoVideo},
      {"audio-only .mov", fixture({.container = Container::mov, .audioOnly = true}), kUnsupported, kNoVideo},
      {"cover art only", fixture({.coverArtOnly = true}), kUnsupported, kNoVideo},
      {"truncated", fixture({.container = Container::mov, .damage = Damage::truncated}), kUnsupported, kDamaged},
      {"zeroed header", fixture({.container = Container::mov, .damage = Damage::zeroedHeader}), kUnsupported, kDamaged},
      {"empty", write("empty.mov", ""), kUnsupported, kDamaged},
      {"text named .mp4", write("notes.mp4", "not a movie\n"), kUnsupported, kDamaged},
  };
  for (const auto& c : cases) {
    LogCapture log;
    EXPECT_EQ(refusal(LoadedVideo::load(c.path)), c.refusal) << c.what;
    const QStringList lines = log.messages("vantrix.media");
    ASSERT_EQ(lines.size(), 1) << c.what << ": " << lines.join("; ").toStdString();
    const QString name = QString::fromStdString(c.path.filename().string());
    EXPECT_TRUE(std::ranges::any_of(c.lines, [&](const char* prefix) { return lines[0] == prefix + name; }))
        << c.what << ": " << lines[0].toStdString();
  }
}

RationalTime s(std::int64_t seconds) { return RationalTime::seconds(seconds); }
// Seconds on the 1/600 s grid that phone videos use.
RationalTime t600(double seconds) { return {static_cast<std::int64_t>(seconds * 600), 600}; }

std::shared_ptr<const MediaAsset> asset(bool withAudio, bool withVideo = true) {
  VideoTrack video;
  video.timeBase = {1, 600};
  video.duration = t600(60);
  const AudioTrack audio{1, AV_CODEC_ID_AAC, {1, 48000}, 48000, 2, 3};
  return std::make_shared<const MediaAsset>("source.mov", withVideo ? std::optional(video) : std::nullopt,
                                            withAudio ? std::optional(audio) : std::nullopt);
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
  for (const Range& r : segments) EXPECT_TRUE(timeline.addSegment(r.start, r.end, *r.speed));
  return CompositionBuilder::ranges(timeline);
}

// The worked example's four ranges are checked through build() below.
// The player keeps its demuxer from one request to the next: a read that the previous request's
// stop interrupted must not fail the next request (FFmpeg keeps the failure on the I/O context).
TEST(MediaInput, AnInterruptedReadEndsOnlyItsOwnRequest) {
  std::stop_source first;
  auto input = MediaInput::open(fixture({.seconds = 3}), first.get_token());
  ASSERT_TRUE(input);
  PacketPtr packet = makePacket();
  first.request_stop();
  int r = 0;
  for (int i = 0; i < 1000 && r >= 0; ++i, av_packet_unref(packet.get())) r = av_read_frame(input->context(), packet.get());
  ASSERT_EQ(r, AVERROR_EXIT) << "the stop reached a read that had to wait for the file";
  EXPECT_EQ(input->read(packet.get()), AVERROR_EXIT);
  input->setStopToken(std::stop_source().get_token());
  int packets = 0;
  for (; (r = input->read(packet.get())) >= 0; av_packet_unref(packet.get())) ++packets;
  EXPECT_EQ(r, AVERROR_EOF);
  EXPECT_GT(packets, 10);
}

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

// Output positions are exact: 10 s at x4 takes 2.5 s, not a rounded 3.
TEST(CompositionBuilder, TheWorkedExampleLaysOutVideoAndNormalSpeedAudioWhenThereIsAudio) {
  const SpeedTimeline timeline = workedExample();
  const auto built = compose(timeline, asset(true));
  ASSERT_TRUE(built);
  const std::vector<CompositionEdit> video{
      {t600(5), t600(5), t600(0), t600(5), std::nullopt},
      {t600(10), t600(10), t600(5), t600(2.5), Speed::x4},  // 10 s at x4 takes 2.5 s
      {t600(20), t600(10), t600(7.5), t600(5), Speed::x2},  // and the next one starts there
      {t600(30), t600(20), t600(12.5), t600(20), std::nullopt},
  };
  EXPECT_EQ(built->videoEdits(), video);
  ASSERT_TRUE(built->hasAudioTrack());
  EXPECT_EQ(built->audioEdits(), (std::vector{video[0], video[3]})) << "sped-up stretches are silent";
  EXPECT_EQ(built->duration(), t600(32.5));
  EXPECT_EQ(built->duration(), timeline.outputTimeForSource(timeline.trimEnd()));

  const auto silent = compose(timeline, asset(false));
  ASSERT_TRUE(silent);
  EXPECT_EQ(silent->videoEdits(), video);
  EXPECT_FALSE(silent->hasAudioTrack()) << "no audio track for a silent source";
}

// No video, or a range past the source's media: compositionFailed, logged as an error.
TEST(CompositionBuilder, RefusalsAreLoggedAsErrors) {
  SpeedTimeline tooLong(t600(70));
  ASSERT_TRUE(tooLong.setTrim(t600(0), t600(65)));
  LogCapture log;
  EXPECT_EQ(refusal(CompositionBuilder::build(workedExample(), asset(true, false))), AppError::compositionFailed());
  EXPECT_EQ(refusal(CompositionBuilder::build(tooLong, asset(true))), AppError::compositionFailed());
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  for (const auto& line : lines)
    EXPECT_EQ(std::pair(line.category, line.type), std::pair(QString("vantrix.media"), QtCriticalMsg));
  EXPECT_EQ(lines[0].message, "Asset has no video track; cannot build composition.");
  EXPECT_TRUE(lines[1].message.startsWith("Track insertion failed: ")) << lines[1].message.toStdString();
}

struct Thumbnails {
  std::vector<Thumbnail> images;
  ThumbnailGenerator::Summary summary;
};

Thumbnails generate(const std::shared_ptr<const MediaAsset>& asset, const std::vector<RationalTime>& times,
                    double height = 64, double scale = 1, int stopAtIndex = -1) {
  Thumbnails run;
  std::stop_source stop;
  run.summary = ThumbnailGenerator(asset).generate(times, height, scale, stop.get_token(), [&](Thumbnail&& t) {
    if (t.index == stopAtIndex) stop.request_stop();
    run.images.push_back(std::move(t));
  });
  return run;
}

// Each thumbnail is a frame within half a second of its time, upright (portrait for quarter
// turns); a time with no frame that near is skipped and the others still arrive.
TEST(ThumbnailGenerator, EachImageIsAFrameNearItsTimeShownUpright) {
  const std::vector<RationalTime> times{ms(0),    ms(16),    ms(60000), ms(17),   ms(480),  ms(500),
                                        ms(1000), ms(-3000), ms(1234),  ms(1985), ms(2500), ms(2999)};
  for (const FixtureSpec& recipe : {
           FixtureSpec{},
           FixtureSpec{.variableFrameRate = true},
           FixtureSpec{.container = Container::mov, .frameRateNum = 30000, .frameRateDen = 1001, .gopFrames = 45},
           FixtureSpec{.container = Container::m4v, .codec = VideoCodec::mpeg4, .frameRateNum = 24},
           FixtureSpec{.rotation = 90},
           FixtureSpec{.rotation = 180},
           FixtureSpec{.rotation = 270},
       }) {
    const auto file = fixture(recipe);
    SCOPED_TRACE(file);
    const auto frames = readFrames(file);
    std::vector<int> indices;
    for (const Thumbnail& t : generate(openAsset(file), times).images) {
      indices.push_back(t.index);
      const auto code = readBarcode(t.image);
      ASSERT_TRUE(code) << "at " << times[t.index].toString() << ": no upright code";
      const RationalTime shown = frameTime(recipe, *code), asked = times[t.index] + frames[0].time;  // from frame 0
      EXPECT_LE(shown < asked ? asked - shown : shown - asked, ThumbnailGenerator::kTolerance) << "frame " << *code;
      EXPECT_LT(*code, static_cast<std::int64_t>(frames.size()));
      const bool portrait = recipe.rotation == 90 || recipe.rotation == 270;
      EXPECT_EQ(t.image.size(), portrait ? QSize(48, 64) : QSize(85, 64));  // 320 x 240 stored
    }
    EXPECT_EQ(indices, (std::vector{0, 1, 3, 4, 5, 6, 8, 9, 10, 11}));
  }
}

// Stopped at the second image, no more is decoded than for two; none asked, none decoded; a file
// that is gone gives none.
TEST(ThumbnailGenerator, StoppingAfterTwoImagesDecodesNoFurtherFrame) {
  const auto asset = openAsset(fixture({}));
  const std::vector<RationalTime> all{ms(500), ms(1500), ms(2500), ms(2900)};
  const Thumbnails stopped = generate(asset, all, 64, 1, 1);
  const Thumbnails two = generate(asset, {all[0], all[1]});
  EXPECT_EQ(stopped.images.size(), 2u);
  EXPECT_EQ(stopped.summary.framesDecoded, two.summary.framesDecoded);
  EXPECT_GT(generate(asset, all).summary.framesDecoded, two.summary.framesDecoded) << "later images need more";
  const Thumbnails none = generate(asset, {});
  EXPECT_TRUE(none.images.empty());
  EXPECT_EQ(none.summary.framesDecoded, 0);
  const auto moved = std::make_shared<const MediaAsset>("/nonexistent/gone.mp4", asset->video(), asset->audio());
  EXPECT_TRUE(generate(moved, {ms(0), ms(1000)}).images.empty());
}

// The height asked (at least one pixel) times the scale, and the display aspect, which non-square
// pixels and rotation decide (sample files, skipped without them).
TEST(ThumbnailGenerator, SizesFollowTheHeightAndTheDisplayAspect) {
  const struct {
    const char* file;  // a fixture for ""
    double height, scale;
    QSize size;
  } cases[] = {
      {"", 0, 2, {1, 1}},
      {"", 0.3, 1, {1, 1}},
      {"", -5, 1, {1, 1}},
      {"", 32, 2, {85, 64}},
      {"", 45, 1.5, {91, 68}},
      {"slhck__ffmpeg-normalize/test.mp4", 90, 1, {160, 90}},                   // 320 x 240 at 4:3 pixels
      {"drewnoakes__metadata-extractor-images/with-gps.mov", 90, 1, {51, 90}},  // 568 x 320 turned
      {"androidx__media/sample_edit_list.mp4", 90, 1, {51, 90}},                // HEVC 10-bit, turned
      {"androidx__media/iibbibb_editlist_videoonly.mp4", 90, 1, {110, 90}},     // open groups of pictures
      {"Vanilagy__mediabunny/cursed-vfr.mp4", 90, 1, {196, 90}},
  };
  for (const auto& c : cases) {
    if (*c.file && !haveRealWorld()) continue;
    const auto run = generate(openAsset(*c.file ? realWorldFile(c.file) : fixture({})), {ms(0)}, c.height, c.scale);
    ASSERT_EQ(run.images.size(), 1u) << c.file << " " << c.height << " x " << c.scale;
    EXPECT_EQ(run.images[0].image.size(), c.size) << c.file << " " << c.height << " x " << c.scale;
  }
}

}  // namespace
}  // namespace vantrix
