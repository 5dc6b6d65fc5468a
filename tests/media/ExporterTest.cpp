#include "media/Exporter.h"

#include "ExportTestSupport.h"
#include "LogCapture.h"
#include "MediaFixture.h"

#include "media/MediaInput.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <sys/mount.h>

#include <cstdio>
#include <fstream>

namespace vantrix {
namespace {

using namespace testing;
using Exporter::Outcome;

struct Exported {
  std::filesystem::path file;
  std::expected<Outcome, AppError> result;
  std::vector<double> progress;
};

Exported exportTo(const std::shared_ptr<const Composition>& composition, const std::filesystem::path& file,
                  std::stop_source stop = {}, std::function<void(double, std::stop_source&)> onProgress = {}) {
  Exported e{file, Outcome::finished, {}};
  e.result = Exporter::exportComposition(
      composition, file,
      [&](double p) {
        e.progress.push_back(p);
        if (onProgress) onProgress(p, stop);
      },
      stop.get_token());
  return e;
}

// What a test needs to know about a written file beyond its frames.
struct StreamFacts {
  RationalTime videoDuration, audioDuration;
  int audioChannels = 0;
  bool hasAudio = false;
};

StreamFacts factsOf(const std::filesystem::path& file) {
  StreamFacts facts;
  auto input = MediaInput::open(file, {});
  if (!input) return facts;
  for (unsigned i = 0; i < input->context()->nb_streams; ++i) {
    const AVStream* st = input->context()->streams[i];
    const RationalTime d(st->duration * st->time_base.num, st->time_base.den);
    if (st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) facts.videoDuration = d;
    if (st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
      facts.hasAudio = true;
      facts.audioDuration = d;
      facts.audioChannels = st->codecpar->ch_layout.nb_channels;
    }
  }
  return facts;
}

std::vector<std::filesystem::path> filesIn(const QTemporaryDir& dir) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path().toStdString())) files.push_back(entry.path());
  return files;
}

// Every output frame shows the source frame the rule predicts, normal-speed stretches keep every
// source frame, sped-up ones sample the source's frame grid, and the length is the timeline's.
TEST(Exporter, EveryOutputFrameShowsTheFrameTheRulePredicts) {
  FixtureSpec ntsc;
  ntsc.frameRateNum = 30000, ntsc.frameRateDen = 1001, ntsc.container = Container::mov;
  FixtureSpec vfr;
  vfr.variableFrameRate = true;
  FixtureSpec rotated;
  rotated.rotation = 90;
  const struct {
    const char* what;
    FixtureSpec source;
    std::optional<std::pair<std::int64_t, std::int64_t>> trim;
    std::vector<SegmentRow> segments;
  } rows[] = {
      {"untouched", {}, std::nullopt, {}},
      {"trim only", {}, std::pair{410, 2730}, {}},
      {"x2", {}, std::nullopt, {{500, 2500, Speed::x2}}},
      {"x4", {}, std::nullopt, {{500, 2500, Speed::x4}}},
      {"x8", {}, std::nullopt, {{400, 2900, Speed::x8}}},
      {"x16", {}, std::nullopt, {{0, 2800, Speed::x16}}},
      {"touching", {}, std::pair{200, 3000}, {{400, 1000, Speed::x2}, {1000, 2000, Speed::x8}}},
      {"at the trim's edges", {}, std::pair{300, 2700}, {{300, 900, Speed::x4}, {2100, 2700, Speed::x16}}},
      {"30000/1001", ntsc, std::pair{100, 2900}, {{700, 1900, Speed::x4}}},
      {"variable rate", vfr, std::nullopt, {{600, 2200, Speed::x4}}},
      {"rotated", rotated, std::nullopt, {{1000, 2000, Speed::x2}}},
  };
  QTemporaryDir dir;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const auto source = fixture(row.source);
    const auto asset = openAsset(source);
    ASSERT_TRUE(asset);
    const SpeedTimeline timeline = timelineFor(*asset, row.trim, row.segments);
    const auto out = exportTo(compose(timeline, asset), dir.filePath("out.mp4").toStdString());
    ASSERT_TRUE(out.result) << out.result.error().description();
    ASSERT_EQ(*out.result, Outcome::finished);

    const auto sourceFrames = readFrames(source);
    const auto frames = readFrames(out.file);
    ASSERT_FALSE(frames.empty());
    const RationalTime origin = frames.front().time;
    // A file's times are whole ticks of its clock, so an output time is known to half a tick: the
    // frame shown must be the one the rule gives at the exact instant somewhere in that span.
    const RationalTime halfTick{1, 2 * origin.timescale()};
    for (const DecodedFrame& f : frames) {
      const RationalTime o = f.time - origin;
      const auto early = expectedBarcode(sourceFrames, timeline.sourceTimeForOutput(o - halfTick));
      const auto late = expectedBarcode(sourceFrames, timeline.sourceTimeForOutput(o + halfTick));
      ASSERT_TRUE(f.barcode == early || f.barcode == late)
          << "output " << o.toString() << " shows " << f.barcode.value_or(-1) << ", expected " << early.value_or(-1)
          << (early == late ? "" : " or " + std::to_string(late.value_or(-1)));
    }
    // Normal-speed stretches keep every source frame: count those between the trim and the first
    // segment (or the trim end).
    const RationalTime firstStretchEnd =
        timeline.segments().empty() ? timeline.trimEnd() : timeline.segments().front().start;
    const auto inStretch = [&](RationalTime s) { return timeline.trimStart() < s && s < firstStretchEnd; };
    const auto sourceCount = std::ranges::count_if(
        sourceFrames, [&](const DecodedFrame& f) { return inStretch(f.time - sourceFrames.front().time); });
    const auto outputCount = std::ranges::count_if(frames, [&](const DecodedFrame& f) {
      const RationalTime o = f.time - origin;
      return o > RationalTime::zero() && inStretch(timeline.sourceTimeForOutput(o));
    });
    EXPECT_EQ(outputCount, sourceCount);

    const RationalTime length = frames.back().time + frames.back().duration - origin;
    const RationalTime oneFrame{row.source.frameRateDen, row.source.frameRateNum};
    EXPECT_LE(length, timeline.outputDuration() + oneFrame) << length.toString();
    EXPECT_GE(length, timeline.outputDuration() - oneFrame) << length.toString();
  }
}

// In normal-speed stretches the tone heard is the one of the source second playing there; sped-up
// stretches are digital silence; the sound lasts as long as the picture.
TEST(Exporter, SoundFollowsThePictureAndSpedUpStretchesAreSilent) {
  FixtureSpec recipe;
  recipe.seconds = 4;
  const auto asset = openAsset(fixture(recipe));
  ASSERT_TRUE(asset);
  const SpeedTimeline timeline = timelineFor(*asset, std::pair{500, 4000}, {{1500, 2500, Speed::x4}});
  QTemporaryDir dir;
  const auto out = exportTo(compose(timeline, asset), dir.filePath("sound.mp4").toStdString());
  ASSERT_TRUE(out.result && *out.result == Outcome::finished);

  constexpr double kWindow = 0.05;
  const auto seconds = dominantSeconds(out.file, kWindow);
  ASSERT_GT(seconds.size(), 40u);
  const RationalTime spedStart = timeline.outputTimeForSource(ms(1500));
  const RationalTime spedEnd = timeline.outputTimeForSource(ms(2500));
  int checked = 0;
  for (std::size_t w = 0; w < seconds.size(); ++w) {
    const RationalTime from{static_cast<std::int64_t>(w) * 50, 1000};
    const RationalTime to = from + ms(50);
    // Windows that touch a boundary, a change of source second, or the coder's edges are left out.
    const auto near = [&](RationalTime b) { return from < b + ms(30) && b - ms(30) < to; };
    if (near(spedStart) || near(spedEnd) || to > timeline.outputDuration() - ms(30)) continue;
    const RationalTime a = timeline.sourceTimeForOutput(from);
    const RationalTime b = timeline.sourceTimeForOutput(to);
    if (from >= spedStart && to <= spedEnd) {
      EXPECT_EQ(seconds[w], -1) << "window at " << from.toString() << " should be silent";
      ++checked;
    } else if (static_cast<int>(a.seconds()) == static_cast<int>(b.seconds() - 1e-9)) {
      EXPECT_EQ(seconds[w], static_cast<int>(a.seconds())) << "window at " << from.toString();
      ++checked;
    }
  }
  EXPECT_GT(checked, 40);

  const StreamFacts facts = factsOf(out.file);
  ASSERT_TRUE(facts.hasAudio);
  const RationalTime aacFrame{1024, 48000};
  EXPECT_LE(facts.audioDuration, facts.videoDuration + aacFrame);
  EXPECT_GE(facts.audioDuration, facts.videoDuration - aacFrame);
}

TEST(Exporter, AudioTracksFollowTheSource) {
  const struct {
    AudioLayout layout;
    bool hasAudio;
    int channels;
  } rows[] = {{AudioLayout::none, false, 0}, {AudioLayout::mono, true, 1}, {AudioLayout::surround51, true, 6}};
  QTemporaryDir dir;
  for (const auto& row : rows) {
    FixtureSpec recipe;
    recipe.audio = row.layout;
    recipe.seconds = 2;
    const auto asset = openAsset(fixture(recipe));
    ASSERT_TRUE(asset);
    const auto out = exportTo(compose(timelineFor(*asset, std::nullopt, {{500, 1500, Speed::x2}}), asset),
                              dir.filePath("a.mp4").toStdString());
    ASSERT_TRUE(out.result && *out.result == Outcome::finished);
    const StreamFacts facts = factsOf(out.file);
    EXPECT_EQ(facts.hasAudio, row.hasAudio);
    EXPECT_EQ(facts.audioChannels, row.channels);
  }
}

// Another player's view of the file: the rotation, a constant frame rate where the source has one,
// and never a rate above the source's.
TEST(Exporter, OtherPlayersSeeTheRotationAndTheSourceFrameRate) {
  FixtureSpec recipe;
  recipe.rotation = 270;
  const auto asset = openAsset(fixture(recipe));
  ASSERT_TRUE(asset);
  QTemporaryDir dir;
  // Boundaries on the frame grid (1.6 s at x16 lasts 3 frames): off-grid ones shift the frames
  // after them by less than a frame, which ffprobe would read as a finer rate.
  const auto out = exportTo(compose(timelineFor(*asset, std::nullopt, {{900, 2500, Speed::x16}}), asset),
                            dir.filePath("r.mp4").toStdString());
  ASSERT_TRUE(out.result && *out.result == Outcome::finished);
  const std::string command =
      "ffprobe -v error -select_streams v:0 -show_entries stream=r_frame_rate,avg_frame_rate"
      ":stream_side_data=rotation -of default=nw=1 '" +
      out.file.string() + "'";
  std::string report;
  if (FILE* p = popen(command.c_str(), "r")) {
    char line[256];
    while (fgets(line, sizeof line, p)) report += line;
    pclose(p);
  }
  EXPECT_NE(report.find("r_frame_rate=30/1"), std::string::npos) << report;
  EXPECT_NE(report.find("rotation=90"), std::string::npos) << report;  // ffprobe reports 270 clockwise as 90
  EXPECT_EQ(openAsset(out.file)->video()->transform.rotationDegrees(), 270);
}

TEST(Exporter, ProgressGrowsAndEndsAtExactlyOne) {
  FixtureSpec recipe;
  recipe.seconds = 4;
  recipe.width = 640, recipe.height = 480;  // slow enough for several reports
  const auto asset = openAsset(fixture(recipe));
  QTemporaryDir dir;
  const auto out = exportTo(compose(timelineFor(*asset, std::nullopt, {}), asset), dir.filePath("p.mp4").toStdString());
  ASSERT_TRUE(out.result && *out.result == Outcome::finished);
  ASSERT_FALSE(out.progress.empty());
  EXPECT_TRUE(std::ranges::is_sorted(out.progress));
  EXPECT_EQ(out.progress.back(), 1.0);
  EXPECT_EQ(std::ranges::count(out.progress, 1.0), 1);
}

TEST(Exporter, CancellingLeavesNoFile) {
  FixtureSpec recipe;
  recipe.seconds = 4;
  recipe.width = 640, recipe.height = 480;
  const auto asset = openAsset(fixture(recipe));
  const auto composition = compose(timelineFor(*asset, std::nullopt, {}), asset);
  QTemporaryDir dir;
  // About a third of the way through.
  const auto midway =
      exportTo(composition, dir.filePath("c.mp4").toStdString(), {}, [](double p, std::stop_source& stop) {
        if (p >= 0.3) stop.request_stop();
      });
  ASSERT_TRUE(midway.result);
  EXPECT_EQ(*midway.result, Outcome::cancelled);
  // After the encoder has finished: the stop arrives with the last report.
  const auto late =
      exportTo(composition, dir.filePath("d.mp4").toStdString(), {}, [](double p, std::stop_source& stop) {
        if (p == 1.0) stop.request_stop();
      });
  ASSERT_TRUE(late.result);
  EXPECT_EQ(*late.result, Outcome::cancelled);
  EXPECT_TRUE(filesIn(dir).empty());
}

TEST(Exporter, ASourceDeletedDuringTheExportFailsAndLeavesNoFile) {
  FixtureSpec recipe;
  recipe.seconds = 4;
  recipe.width = 640, recipe.height = 480;
  QTemporaryDir dir;
  const std::filesystem::path copy = dir.filePath("source.mp4").toStdString();
  std::filesystem::copy_file(fixture(recipe), copy);
  const auto asset = openAsset(copy);
  LogCapture logs;
  const auto out = exportTo(compose(timelineFor(*asset, std::nullopt, {}), asset), dir.filePath("e.mp4").toStdString(),
                            {}, [&](double, std::stop_source&) { std::filesystem::remove(copy); });
  ASSERT_FALSE(out.result);
  EXPECT_EQ(out.result.error(), AppError::exportFailed(MediaError::own(MediaError::Code::internal, "")));
  EXPECT_TRUE(filesIn(dir).empty());
  const QStringList lines = logs.messages("vantrix.media");
  ASSERT_EQ(lines.size(), 1);
  EXPECT_TRUE(lines[0].startsWith("Export failed: ")) << lines[0].toStdString();
}

// A destination on a file system that fills up: a tmpfs of a few hundred KiB, where the machine
// lets the tests mount one (root); skipped elsewhere.
TEST(Exporter, AFullDiskGivesDiskFullAndLeavesNoFile) {
  QTemporaryDir dir;
  const std::string mountPoint = dir.path().toStdString();
  if (mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=16k") != 0)
    GTEST_SKIP() << "cannot mount a small tmpfs here";
  struct Unmount {
    std::string at;
    ~Unmount() { umount(at.c_str()); }
  } unmount{mountPoint};
  FixtureSpec recipe;
  recipe.width = 640, recipe.height = 480;  // about 80 KiB of output
  const auto asset = openAsset(fixture(recipe));
  LogCapture logs;
  const auto out = exportTo(compose(timelineFor(*asset, std::nullopt, {}), asset), mountPoint + "/full.mp4");
  ASSERT_FALSE(out.result);
  EXPECT_EQ(out.result.error(), AppError::diskFull());
  EXPECT_TRUE(std::filesystem::is_empty(mountPoint));
  EXPECT_TRUE(logs.messages("vantrix.media").isEmpty());
}

TEST(Exporter, SuggestedNames) {
  const struct {
    const char* source;
    std::set<std::string> avoid;
    const char* expected;
  } rows[] = {
      {"/videos/Holiday.mov", {}, "Holiday-vantrix.mp4"},
      {"/videos/Holiday.mov", {"Holiday-vantrix.mp4"}, "Holiday-vantrix 2.mp4"},
      {"/videos/Holiday.mov", {"Holiday-vantrix.mp4", "Holiday-vantrix 2.mp4"}, "Holiday-vantrix 3.mp4"},
      {"/videos/Holiday.mov", {"Holiday-vantrix 2.mp4"}, "Holiday-vantrix.mp4"},
      {"a.b.mov", {}, "a.b-vantrix.mp4"},
  };
  for (const auto& row : rows) EXPECT_EQ(Exporter::suggestedOutputName(row.source, row.avoid), row.expected);
}

}  // namespace
}  // namespace vantrix
