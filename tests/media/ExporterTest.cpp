#include "media/Exporter.h"

#include "MediaTestSupport.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <sys/mount.h>

#include <cstdio>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace testing;
using Exporter::Outcome;

struct Exported {
  std::expected<Outcome, AppError> result;
  std::vector<double> progress;
};

// `onProgress` may stop the export, or change the world under it.
Exported exportTo(const std::shared_ptr<const Composition>& composition, const fs::path& file,
                  const std::function<void(double, std::stop_source&)>& onProgress = {}) {
  Exported e{Outcome::finished, {}};
  std::stop_source stop;
  e.result = Exporter::exportComposition(
      composition, file,
      [&](double p) {
        e.progress.push_back(p);
        if (onProgress) onProgress(p, stop);
      },
      stop.get_token());
  return e;
}

// What ffprobe, another program, reports for one stream ("v:0", "a:0") as key=value lines; empty
// when the file has no such stream.
std::string probe(const fs::path& file, const std::string& stream, const std::string& entries) {
  const std::string command = "ffprobe -v error -select_streams " + stream + " -show_entries " + entries +
                              " -of default=nw=1 '" + file.string() + "'";
  std::string report;
  if (FILE* p = popen(command.c_str(), "r")) {
    char line[256];
    while (fgets(line, sizeof line, p)) report += line;
    pclose(p);
  }
  return report;
}

double probedSeconds(const fs::path& file, const std::string& stream) {
  const std::string report = probe(file, stream, "stream=duration");
  return std::stod(report.substr(report.find('=') + 1));
}

auto stopAt(double fraction) {
  return [fraction](double p, std::stop_source& stop) {
    if (p >= fraction) stop.request_stop();
  };
}

// Slow enough to export for several progress reports, which come at most every 0.1 s.
const FixtureSpec kLarge{.width = 640, .height = 480, .seconds = 4};

// Every output frame shows the source frame the rule predicts, normal-speed stretches keep every
// source frame, sped-up ones sample the source's frame grid, and the length is the timeline's.
// The sound track follows the source's channels, and other programs see the rotation and the
// source's frame rate.
TEST(Exporter, EveryOutputFrameShowsTheFrameTheRulePredicts) {
  const struct {
    const char* what;
    FixtureSpec source;
    std::optional<std::pair<std::int64_t, std::int64_t>> trim;
    std::vector<SegmentRow> segments;
  } rows[] = {
      {"untouched", {}, std::nullopt, {}},
      {"trim only, silent source", {.audio = AudioLayout::none}, std::pair{410, 2730}, {}},
      {"x2, 5.1 sound", {.audio = AudioLayout::surround51}, std::nullopt, {{500, 2500, Speed::x2}}},
      {"x4", {}, std::nullopt, {{500, 2500, Speed::x4}}},
      {"x8", {}, std::nullopt, {{400, 2900, Speed::x8}}},
      {"x16", {}, std::nullopt, {{0, 2800, Speed::x16}}},
      {"touching", {}, std::pair{200, 3000}, {{400, 1000, Speed::x2}, {1000, 2000, Speed::x8}}},
      {"at the trim's edges", {}, std::pair{300, 2700}, {{300, 900, Speed::x4}, {2100, 2700, Speed::x16}}},
      {"30000/1001",
       {.container = Container::mov, .frameRateNum = 30000, .frameRateDen = 1001},
       std::pair{100, 2900},
       {{700, 1900, Speed::x4}}},
      {"variable rate", {.variableFrameRate = true}, std::nullopt, {{600, 2200, Speed::x4}}},
      // Boundaries on the frame grid: off-grid ones shift the frames after them by less than a
      // frame, which ffprobe would read as a finer rate.
      {"rotated", {.rotation = 270}, std::nullopt, {{1000, 2000, Speed::x2}}},
  };
  QTemporaryDir dir;
  const fs::path file = dir.filePath("out.mp4").toStdString();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const auto source = fixture(row.source);
    const auto asset = openAsset(source);
    ASSERT_TRUE(asset);
    const SpeedTimeline timeline = timelineFor(*asset, row.trim, row.segments);
    const auto out = exportTo(compose(timeline, asset), file);
    ASSERT_EQ(out.result, Outcome::finished) << (out.result ? "" : out.result.error().description());

    const auto sourceFrames = readFrames(source);
    const auto frames = readFrames(file);
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
    const RationalTime oneFrame{row.source.frameRateDen, row.source.frameRateNum};
    EXPECT_LE(frameSpan(frames), timeline.outputDuration() + oneFrame) << frameSpan(frames).toString();
    EXPECT_GE(frameSpan(frames), timeline.outputDuration() - oneFrame) << frameSpan(frames).toString();
    // Players that trust the track's declared length see the whole edit, no more.
    EXPECT_NEAR(probedSeconds(file, "v:0"), timeline.outputDuration().seconds(), 0.001);

    const char* channels[] = {"", "channels=1\n", "channels=2\n", "channels=6\n"};  // by AudioLayout
    EXPECT_EQ(probe(file, "a:0", "stream=channels"), channels[static_cast<int>(row.source.audio)]);
    if (row.source.rotation) {  // ffprobe gives 270 clockwise as 90
      EXPECT_EQ(probe(file, "v:0", "stream=r_frame_rate:stream_side_data=rotation"),
                "r_frame_rate=30/1\nrotation=90\n");
    }
  }
}

// In normal-speed stretches the tone heard is the one of the source second playing there; sped-up
// stretches are digital silence; the sound lasts as long as the picture.
TEST(Exporter, SoundFollowsThePictureAndSpedUpStretchesAreSilent) {
  const auto asset = openAsset(fixture({.seconds = 4}));
  ASSERT_TRUE(asset);
  const SpeedTimeline timeline = timelineFor(*asset, std::pair{500, 4000}, {{1500, 2500, Speed::x4}});
  QTemporaryDir dir;
  const fs::path file = dir.filePath("sound.mp4").toStdString();
  ASSERT_EQ(exportTo(compose(timeline, asset), file).result, Outcome::finished);

  const auto seconds = dominantSeconds(file, 0.05);
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

  EXPECT_NEAR(probedSeconds(file, "a:0"), probedSeconds(file, "v:0"), 1024.0 / 48000);  // one AAC frame
}

// However an export ends, only a finished one leaves a file, and only it reports 1.0, once, at the
// end of growing progress.
TEST(Exporter, OnlyAFinishedExportLeavesAFile) {
  QTemporaryDir sources, dir;
  const fs::path source = sources.filePath("source.mp4").toStdString();
  const fs::path file = dir.filePath("e.mp4").toStdString();
  const std::expected<Outcome, AppError> failed =
      std::unexpected(AppError::exportFailed(MediaError::own(MediaError::Code::internal, "")));
  const struct {
    const char* what;
    std::function<void(double, std::stop_source&)> onProgress;
    std::expected<Outcome, AppError> result;
  } rows[] = {
      {"finished", {}, Outcome::finished},
      {"cancelled midway", stopAt(0.3), Outcome::cancelled},
      {"cancelled after the encoder finished", stopAt(1.0), Outcome::cancelled},
      {"source deleted", [&](double, std::stop_source&) { fs::remove(source); }, failed},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    fs::copy_file(fixture(kLarge), source, fs::copy_options::overwrite_existing);
    const auto asset = openAsset(source);
    const auto out = exportTo(compose(timelineFor(*asset, std::nullopt, {}), asset), file, row.onProgress);
    EXPECT_EQ(out.result, row.result);
    const bool finished = row.result == Outcome::finished;
    EXPECT_EQ(std::vector<fs::path>(fs::directory_iterator(file.parent_path()), {}),
              finished ? std::vector{file} : std::vector<fs::path>{});
    if (finished) {
      EXPECT_GT(out.progress.size(), 2u);
      EXPECT_TRUE(std::ranges::is_sorted(out.progress));
      EXPECT_EQ(out.progress.back(), 1.0);
      EXPECT_EQ(std::ranges::count(out.progress, 1.0), 1);
    }
    fs::remove(file);
  }
}

// A destination on a file system that fills up: a small tmpfs, where the machine lets the tests
// mount one (root); skipped elsewhere.
TEST(Exporter, AFullDiskGivesDiskFullAndLeavesNoFile) {
  QTemporaryDir dir;
  const std::string mountPoint = dir.path().toStdString();
  if (mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=16k") != 0) GTEST_SKIP() << "cannot mount a tmpfs here";
  struct Unmount {
    std::string at;
    ~Unmount() { umount(at.c_str()); }
  } unmount{mountPoint};
  const auto asset = openAsset(fixture(kLarge));
  const auto out = exportTo(compose(timelineFor(*asset, std::nullopt, {}), asset), mountPoint + "/full.mp4");
  EXPECT_EQ(refusal(out.result), AppError::diskFull());
  EXPECT_TRUE(fs::is_empty(mountPoint));
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
