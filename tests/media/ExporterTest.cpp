// Export: frame and sound truth, what other programs read, failures, and output names.

#include "media/Exporter.h"

#include "MediaTestSupport.h"

extern "C" {
#include <libavutil/error.h>
}

#include <QTemporaryDir>

#include <sys/mount.h>

#include <cstdio>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace testing;
using Exporter::Outcome;

// What ffprobe, another program, reports of one stream ("v:0", "a:0"); empty when there is none.
std::string probe(const fs::path& file, const std::string& stream, const std::string& entries) {
  const std::string command = "ffprobe -v error -select_streams " + stream + " -show_entries " + entries +
                              " -of default=nw=1 '" + file.string() + "'";
  std::string report;
  if (FILE* p = popen(command.c_str(), "r")) {
    for (char line[256]; fgets(line, sizeof line, p);) report += line;
    pclose(p);
  }
  return report;
}

double probedSeconds(const fs::path& file, const std::string& stream) {
  return std::stod(probe(file, stream, "stream=duration").substr(std::string_view("duration=").size()));
}

auto stopAt(double fraction) {
  return [fraction](double p, std::stop_source& stop) {
    if (p >= fraction) stop.request_stop();
  };
}

const FixtureSpec kLarge{.width = 640, .height = 480, .seconds = 4};  // long enough for several progress reports

// Every output frame is the source frame the rule predicts, the length the timeline's; the tone is
// the source second's playing there, sped-up stretches are digital silence, the sound keeps the
// source's channels and the picture's length; other programs see the rotation and frame rate.
TEST(Exporter, EveryOutputFrameAndSoundIsTheOneTheTimelinePredicts) {
  const struct {
    const char* what;
    FixtureSpec source;
    std::optional<std::pair<std::int64_t, std::int64_t>> trim;
    std::vector<SegmentRow> segments;
  } rows[] = {
      {"untouched", {}, std::nullopt, {}},
      {"trim only, silent source", {.audio = AudioLayout::none}, std::pair{410, 2730}, {}},
      {"x2, 5.1 sound", {.audio = AudioLayout::surround51}, std::nullopt, {{500, 2500, Speed::x2}}},
      {"x4", {.seconds = 4}, std::pair{500, 4000}, {{1500, 2500, Speed::x4}}},
      {"x8", {}, std::nullopt, {{400, 2900, Speed::x8}}},
      {"x16", {}, std::nullopt, {{0, 2800, Speed::x16}}},
      {"touching", {}, std::pair{200, 3000}, {{400, 1000, Speed::x2}, {1000, 2000, Speed::x8}}},
      {"at the trim's edges", {}, std::pair{300, 2700}, {{300, 900, Speed::x4}, {2100, 2700, Speed::x16}}},
      {"30000/1001",
       {.container = Container::mov, .frameRateNum = 30000, .frameRateDen = 1001},
       {},
       {{700, 1900, Speed::x4}}},
      {"variable rate", {.variableFrameRate = true}, std::nullopt, {{600, 2200, Speed::x4}}},
      // Boundaries on the frame grid: off-grid ones would read in ffprobe as a finer rate.
      {"rotated", {.rotation = 270}, std::nullopt, {{1000, 2000, Speed::x2}}},
  };
  QTemporaryDir dir;
  const fs::path file = dir.filePath("out.mp4").toStdString();
  int windowsHeard = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const auto source = fixture(row.source);
    const auto asset = openAsset(source);
    ASSERT_TRUE(asset);
    const SpeedTimeline timeline = timelineFor(*asset, row.trim, row.segments);
    const auto composition = compose(timeline, asset);
    const auto result = Exporter::exportComposition(composition, file, {}, {});
    ASSERT_EQ(result, Outcome::finished) << (result ? "" : result.error().description());

    const auto sourceFrames = readFrames(source), frames = readFrames(file);
    ASSERT_FALSE(frames.empty());
    // The barcode of the latest source frame at or before source time x (the first before all).
    const auto expected = [&](RationalTime x) {
      const auto after = std::ranges::upper_bound(sourceFrames, sourceFrames[0].time + x, {}, &DecodedFrame::time);
      return (after == sourceFrames.begin() ? after : std::prev(after))->barcode;
    };
    // Normal-speed stretches keep every source frame: counted from the trim to the first segment.
    const RationalTime stretchEnd = timeline.segments().empty() ? timeline.trimEnd() : timeline.segments()[0].start;
    const auto inStretch = [&](RationalTime s) { return timeline.trimStart() < s && s < stretchEnd; };
    std::int64_t inStretchOut = 0, inStretchIn = 0;
    for (const DecodedFrame& f : sourceFrames) inStretchIn += inStretch(f.time - sourceFrames[0].time);
    // A file's times are whole ticks: the frame shown is the rule's somewhere within half a tick.
    const RationalTime origin = frames[0].time, halfTick{1, 2 * origin.timescale()};
    for (const DecodedFrame& f : frames) {
      const RationalTime o = f.time - origin;
      const auto early = expected(timeline.sourceTimeForOutput(o - halfTick));
      ASSERT_TRUE(f.barcode == early || f.barcode == expected(timeline.sourceTimeForOutput(o + halfTick)))
          << "output " << o.toString() << " shows " << f.barcode.value_or(-1) << ", not " << early.value_or(-1);
      inStretchOut += o > RationalTime::zero() && inStretch(timeline.sourceTimeForOutput(o));
    }
    EXPECT_EQ(inStretchOut, inStretchIn);
    EXPECT_LE(std::abs((frameSpan(frames) - timeline.outputDuration()).seconds()), 1.0 / 30) << "one frame";
    // Players that trust the track's declared length see the whole edit, no more.
    EXPECT_NEAR(probedSeconds(file, "v:0"), timeline.outputDuration().seconds(), 0.001);

    const char* channels[] = {"", "channels=1\n", "channels=2\n", "channels=6\n"};  // by AudioLayout
    EXPECT_EQ(probe(file, "a:0", "stream=channels"), channels[static_cast<int>(row.source.audio)]);
    const auto heard = dominantSeconds(file, 0.05);
    for (std::size_t w = 0; w < heard.size(); ++w) {
      const RationalTime from = ms(50 * static_cast<std::int64_t>(w));
      if (const auto second = expectedSecond(*composition, from, from + ms(50), ms(30))) {
        EXPECT_EQ(heard[w], *second) << "window at " << from.toString();
        ++windowsHeard;
      }
    }
    if (row.source.audio != AudioLayout::none) {  // within one AAC frame
      EXPECT_NEAR(probedSeconds(file, "a:0"), probedSeconds(file, "v:0"), 1024.0 / 48000);
    }
    if (row.source.rotation) {  // ffprobe gives 270 clockwise as 90
      EXPECT_EQ(probe(file, "v:0", "stream=r_frame_rate:stream_side_data=rotation"),
                "r_frame_rate=30/1\nrotation=90\n");
    }
  }
  EXPECT_GT(windowsHeard, 250);
}

// Only a finished export leaves a file, and only it reports 1.0, once, after growing progress. A full
// disk is a small tmpfs, where the tests may mount one (as root).
TEST(Exporter, OnlyAFinishedExportLeavesAFile) {
  QTemporaryDir sources, dir, small;
  const fs::path source = sources.filePath("source.mp4").toStdString(), tmpfs = small.path().toStdString();
  const bool mounted = mount("tmpfs", tmpfs.c_str(), "tmpfs", 0, "size=16k") == 0;
  const std::unique_ptr<const char, decltype(&umount)> unmount(mounted ? tmpfs.c_str() : nullptr, umount);
  const fs::path file = dir.filePath("e.mp4").toStdString();
  const AppError failed = AppError::exportFailed(MediaError::own(MediaError::Code::internal, ""));
  const struct {
    const char* what;
    fs::path destination;
    std::function<void(double, std::stop_source&)> onProgress;
    std::expected<Outcome, AppError> result;
  } rows[] = {
      {"finished", file, {}, Outcome::finished},
      {"cancelled midway", file, stopAt(0.3), Outcome::cancelled},
      {"cancelled after the encoder finished", file, stopAt(1.0), Outcome::cancelled},
      {"source deleted", file, [&](double, std::stop_source&) { fs::remove(source); }, std::unexpected(failed)},
      {"disk full", tmpfs / "full.mp4", {}, std::unexpected(AppError::diskFull())},  // last: it may be skipped
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    if (row.destination.parent_path() == tmpfs && !mounted) GTEST_SKIP() << "cannot mount a tmpfs here";
    fs::copy_file(fixture(kLarge), source, fs::copy_options::overwrite_existing);
    const auto asset = openAsset(source);
    std::vector<double> progress;
    std::stop_source stop;
    const auto report = [&](double p) {
      progress.push_back(p);
      if (row.onProgress) row.onProgress(p, stop);
    };
    const auto composition = compose(timelineFor(*asset, std::nullopt, {}), asset);
    EXPECT_EQ(Exporter::exportComposition(composition, row.destination, report, stop.get_token()), row.result);
    const bool finished = row.result == Outcome::finished;
    EXPECT_EQ(std::vector<fs::path>(fs::directory_iterator(row.destination.parent_path()), {}),
              finished ? std::vector{row.destination} : std::vector<fs::path>{});
    if (finished) {
      EXPECT_GT(progress.size(), 2u);
      EXPECT_TRUE(std::ranges::is_sorted(progress));
      EXPECT_EQ(progress.back(), 1.0);
      EXPECT_EQ(std::ranges::count(progress, 1.0), 1);
    }
    fs::remove(row.destination);
  }
}

// The export tells a full disk from other failures by the error's domain and code, at any depth.
TEST(MediaError, OutOfDiskSpaceIsFoundAtAnyDepth) {
  const MediaError enospc = MediaError::posix(ENOSPC, "Writing the file"), io = MediaError::posix(EIO, "Writing");
  const MediaError avEnospc = MediaError::ffmpeg(AVERROR(ENOSPC), "Writing a packet");
  const MediaError wrapper = MediaError::own(MediaError::Code::internal, "Exporting");
  const std::pair<MediaError, bool> cases[] = {
      {enospc, true},
      {avEnospc, true},
      {io, false},
      {MediaError::own(static_cast<MediaError::Code>(ENOSPC), "28 in our own domain is not errno"), false},
      {MediaError::ffmpeg(ENOSPC, "positive 28 is not an AVERROR"), false},
      {wrapper.causedBy(enospc), true},
      {wrapper.causedBy(io).causedBy(wrapper.causedBy(io).causedBy(avEnospc)), true},  // two levels down
      {wrapper.causedBy(io).causedBy(wrapper.causedBy(io)), false},
  };
  for (const auto& [error, full] : cases) EXPECT_EQ(error.isOutOfDiskSpace(), full) << error.description();
}

TEST(Exporter, SuggestedNames) {
  const std::tuple<const char*, std::set<std::string>, const char*> rows[] = {
      {"/videos/Holiday.mov", {}, "Holiday-vantrix.mp4"},
      {"/videos/Holiday.mov", {"Holiday-vantrix.mp4"}, "Holiday-vantrix 2.mp4"},
      {"/videos/Holiday.mov", {"Holiday-vantrix.mp4", "Holiday-vantrix 2.mp4"}, "Holiday-vantrix 3.mp4"},
      {"/videos/Holiday.mov", {"Holiday-vantrix 2.mp4"}, "Holiday-vantrix.mp4"},
      {"a.b.mov", {}, "a.b-vantrix.mp4"},
  };
  for (const auto& [source, avoid, name] : rows) EXPECT_EQ(Exporter::suggestedOutputName(source, avoid), name);
}

}  // namespace
}  // namespace vantrix
