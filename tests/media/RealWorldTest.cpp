// The sample files from elsewhere taken through everything an opened video goes through: played to
// its end, shown in a filmstrip, exported with a trim and a sped-up region. Their frames are
// checked against the source decoded independently (no barcodes here: the pictures are compared
// downscaled to grey).

#include "media/Exporter.h"
#include "media/LoadedVideo.h"
#include "media/ThumbnailGenerator.h"

#include "FixtureDecoding.h"
#include "MediaTestSupport.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QThread>

#include <chrono>
#include <ranges>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace testing;

// Pictures are compared at this size, in grey, stored orientation unless said otherwise.
constexpr int kSide = 32;
// Mean absolute differences of two such pictures, in grey levels, below which they show the same
// frame. Measured on the sample files: an exported frame differs from its source frame by at most
// 0.5, while neighbouring source frames differ by 1.5 to 7 wherever the footage moves (static
// footage cannot tell them apart at all). A thumbnail, whose RGB follows the file's own colour
// matrix while greyOf() reads it back as BT.601, differs from its frame by up to 6.7 (BT.2020
// footage), but by 23 and more when it is not turned upright.
constexpr double kSameExportedFrame = 1;
constexpr double kSameThumbnail = 10;

struct Frame {
  RationalTime time;  // presentation timestamp, exact
  QImage grey;        // kSide x kSide, Format_Grayscale8
};

RationalTime ticks(std::int64_t value, AVRational timeBase) { return {value * timeBase.num, timeBase.den}; }

// Every frame of the first video stream, downscaled by averaging to kSide x kSide grey; `end`
// receives the stream's declared end (MP4 packet durations are not to be trusted with B-frames).
std::vector<Frame> decodeSmall(const fs::path& file, RationalTime* end = nullptr) {
  std::vector<Frame> frames;
  auto opened = openFirstStream(file, AVMEDIA_TYPE_VIDEO);
  if (!opened) return frames;
  if (end) *end = ticks(opened->stream->start_time + opened->stream->duration, opened->stream->time_base);
  SwsPtr scaler;
  decodeAll(*opened, [&](const AVFrame& f) {
    auto format = static_cast<AVPixelFormat>(f.format);
    const bool fullRange = f.color_range == AVCOL_RANGE_JPEG || format == AV_PIX_FMT_YUVJ420P ||
                           format == AV_PIX_FMT_YUVJ422P || format == AV_PIX_FMT_YUVJ444P;
    if (format == AV_PIX_FMT_YUVJ420P) format = AV_PIX_FMT_YUV420P;
    if (format == AV_PIX_FMT_YUVJ422P) format = AV_PIX_FMT_YUV422P;
    if (format == AV_PIX_FMT_YUVJ444P) format = AV_PIX_FMT_YUV444P;
    scaler.reset(sws_getCachedContext(scaler.release(), f.width, f.height, format, kSide, kSide, AV_PIX_FMT_GRAY8,
                                      SWS_AREA, nullptr, nullptr, nullptr));
    const int* coefficients = sws_getCoefficients(SWS_CS_DEFAULT);
    sws_setColorspaceDetails(scaler.get(), coefficients, fullRange ? 1 : 0, coefficients, 1, 0, 1 << 16, 1 << 16);
    QImage grey(kSide, kSide, QImage::Format_Grayscale8);
    uint8_t* planes[4] = {grey.bits()};
    const int strides[4] = {static_cast<int>(grey.bytesPerLine())};
    sws_scale(scaler.get(), f.data, f.linesize, 0, f.height, planes, strides);
    frames.push_back({ticks(f.best_effort_timestamp, opened->stream->time_base), grey});
  });
  return frames;
}

// The picture at kSide x kSide in grey, as BT.601 luma (what the decoder's grey is).
QImage greyOf(const QImage& rgb) {
  const QImage small = rgb.scaled(kSide, kSide, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
  QImage grey(kSide, kSide, QImage::Format_Grayscale8);
  for (int y = 0; y < kSide; ++y) {
    for (int x = 0; x < kSide; ++x) {
      const QRgb p = small.pixel(x, y);
      grey.scanLine(y)[x] = static_cast<uchar>((299 * qRed(p) + 587 * qGreen(p) + 114 * qBlue(p) + 500) / 1000);
    }
  }
  return grey;
}

double difference(const QImage& a, const QImage& b) {
  double sum = 0;
  for (int y = 0; y < kSide; ++y) {
    for (int x = 0; x < kSide; ++x) sum += std::abs(int{a.constScanLine(y)[x]} - int{b.constScanLine(y)[x]});
  }
  return sum / (kSide * kSide);
}

// The frame showing at time t after the first: the last at or before it, else the first.
const Frame& frameAt(const std::vector<Frame>& frames, RationalTime t) {
  auto it = std::ranges::upper_bound(frames, frames.front().time + t, {}, &Frame::time);
  return it == frames.begin() ? *it : *std::prev(it);
}


// The edit every file gets: trimmed to 10 % to 90 % of its length (at most a second, to keep
// high-definition exports quick) with the middle half at 4x; a trim alone for one-frame files.
SpeedTimeline editFor(RationalTime duration, std::size_t frameCount) {
  const auto at = [&](int percent) {
    return RationalTime(duration.value() * percent, duration.timescale() * 100).convertedToTimescale(90000);
  };
  SpeedTimeline timeline(duration);
  const RationalTime start = at(10), end = std::min(at(90), start + RationalTime::seconds(1));
  EXPECT_TRUE(timeline.setTrim(start, end));
  if (frameCount > 1) {
    const RationalTime quarter = (end - start).dividedBy(4).convertedToTimescale(90000);
    EXPECT_TRUE(timeline.addSegment(start + quarter, end - quarter, Speed::x4));
  }
  return timeline;
}

// The output times at which the picture changes, with the source frame shown from each: the
// frames the composition shows by its frame rule, found independently from the decoded source.
std::vector<std::pair<RationalTime, RationalTime>> pictureChanges(const Composition& composition,
                                                                  const std::vector<Frame>& source) {
  const AVRational rate = composition.asset()->video()->frameRate;
  std::vector<std::pair<RationalTime, RationalTime>> changes;
  const auto consider = [&](const CompositionEdit& edit, RationalTime t) {
    if (t < edit.outputStart || t >= edit.outputEnd()) return;
    const RationalTime shown = frameAt(source, edit.sourceTimeAt(t)).time - source.front().time;
    if (changes.empty() || changes.back().second != shown) changes.emplace_back(t, shown);
  };
  for (const CompositionEdit& edit : composition.videoEdits()) {
    consider(edit, edit.outputStart);
    if (!edit.speed) {
      for (const Frame& f : source) consider(edit, edit.outputStart + (f.time - source.front().time) - edit.sourceStart);
      continue;
    }
    // Sped up: the frame grid of the source's nominal rate.
    const auto first = static_cast<std::int64_t>(edit.outputStart.seconds() * rate.num / rate.den) - 1;
    for (std::int64_t k = first; RationalTime(k * rate.den, rate.num) < edit.outputEnd(); ++k)
      consider(edit, RationalTime(k * rate.den, rate.num));
  }
  return changes;
}

// Plays the player's item on `clock`, moved by hand from one picture change to the next: each
// change shows its source frame, and the player stops at the item's end without an error.
void playsEveryChangeToTheEnd(Player& player, ManualClock& clock, const std::vector<Frame>& source) {
  const Composition& item = *player.currentItem();
  bool ended = false;
  const auto connection = QObject::connect(&player, &Player::playedToEnd, [&] { ended = true; });
  player.play();
  ASSERT_TRUE(waitFor([&] { return player.timeControlStatus() == Player::TimeControlStatus::playing; }));
  const std::chrono::nanoseconds start = clock.now();
  const auto moveTo = [&](RationalTime t) {  // the first clock reading at or after t
    constexpr std::int64_t kNs = 1'000'000'000;
    std::int64_t ns = t.convertedToTimescale(kNs).value();
    if (RationalTime(ns, kNs) < t) ++ns;
    clock.advance(start + std::chrono::nanoseconds(ns) - clock.now());
  };
  for (const auto& [at, shown] : pictureChanges(item, source)) {
    moveTo(at);
    ASSERT_TRUE(waitFor([&] { return player.currentFrame() && player.currentFrame()->sourceTime == shown; }, 10s))
        << "at output " << at.toString() << " showing "
        << (player.currentFrame() ? player.currentFrame()->sourceTime.toString() : "nothing") << " not "
        << shown.toString();
  }
  moveTo(item.duration());
  ASSERT_TRUE(waitFor([&] { return ended; }));
  QObject::disconnect(connection);
  EXPECT_EQ(player.timeControlStatus(), Player::TimeControlStatus::paused);
  EXPECT_EQ(player.currentTime(), item.duration());
  EXPECT_FALSE(player.error()) << player.error()->description();
}

class RealWorldTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ensureCoreApplication(); }

  void SetUp() override {
    if (!haveRealWorld()) GTEST_SKIP() << "no real-world media folder";
    for (const auto& entry : fs::recursive_directory_iterator(realWorldFile())) {
      const auto ext = entry.path().extension();
      if (ext != ".mp4" && ext != ".mov" && ext != ".m4v") continue;
      if (auto video = LoadedVideo::load(entry.path())) m_videos.push_back(std::move(*video));
    }
    std::ranges::sort(m_videos, {}, &LoadedVideo::path);
    ASSERT_FALSE(m_videos.empty());
  }

  std::vector<LoadedVideo> m_videos;
};

// Each file plays every frame of its own to its end, then, edited, every frame of the edit.
TEST_F(RealWorldTest, EachFilePlaysEveryFrameToItsEnd) {
  for (LoadedVideo& video : m_videos) {
    SCOPED_TRACE(video.path);
    const auto source = decodeSmall(video.path);
    auto clock = std::make_shared<ManualClock>();
    // Exact pictures only: the clock moves on as soon as each picture shows, so the decoder is never
    // ahead of it, and catch-up sampling would rightly take over in the sped-up stretch.
    ASSERT_TRUE(video.attachPlayer({clock, std::make_unique<NullAudioOutput>(), 0, false}));
    video.player->setVideoSize({kSide, kSide});
    playsEveryChangeToTheEnd(*video.player, *clock, source);
    video.player->replaceCurrentItem(compose(editFor(video.asset->duration(), source.size()), video.asset));
    playsEveryChangeToTheEnd(*video.player, *clock, source);
  }
}

// A filmstrip of eight: every time with a frame within the tolerance gets its thumbnail, showing
// one of those frames upright.
TEST_F(RealWorldTest, EachFileFillsAFilmstrip) {
  constexpr int kCount = 8;
  for (const LoadedVideo& video : m_videos) {
    SCOPED_TRACE(video.path);
    const auto frames = decodeSmall(video.path);
    const RationalTime duration = video.asset->duration();
    std::vector<RationalTime> times;
    std::vector<std::vector<QImage>> candidates;  // upright, per time
    std::vector<int> expected;
    for (int i = 0; i < kCount; ++i) {
      times.push_back(RationalTime(duration.value() * i, duration.timescale() * kCount));
      candidates.emplace_back();
      for (const Frame& f : frames) {
        const RationalTime gap = f.time - frames.front().time - times.back();
        if (std::max(gap, RationalTime::zero() - gap) <= ThumbnailGenerator::kTolerance)
          candidates.back().push_back(video.asset->video()->transform.applied(f.grey));
      }
      if (!candidates.back().empty()) expected.push_back(i);
    }
    std::vector<int> delivered;
    ThumbnailGenerator(video.asset).generate(times, 64, 1, {}, [&](ThumbnailGenerator::Thumbnail&& t) {
      delivered.push_back(t.index);
      if (candidates[t.index].empty()) return;  // no frame near enough: `delivered` shows it
      const QImage shown = greyOf(t.image);
      const auto closest = std::ranges::min(candidates[t.index] | std::views::transform([&](const QImage& c) {
                                              return difference(shown, c);
                                            }));
      EXPECT_LT(closest, kSameThumbnail) << "at " << times[t.index].toString();
    });
    EXPECT_EQ(delivered, expected);
  }
}

// Each file exports its edit to the composition's length, and each output frame shows the source
// frame the timeline maps it to.
TEST_F(RealWorldTest, EachFileExportsATrimWithA4xRegion) {
  QTemporaryDir dir;
  const fs::path out = dir.filePath("out.mp4").toStdString();
  for (const LoadedVideo& video : m_videos) {
    SCOPED_TRACE(video.path);
    const auto source = decodeSmall(video.path);
    const SpeedTimeline timeline = editFor(video.asset->duration(), source.size());
    const auto composition = compose(timeline, video.asset);
    ASSERT_TRUE(composition);
    const auto result = Exporter::exportComposition(composition, out, {}, {});
    ASSERT_EQ(result, Exporter::Outcome::finished) << (result ? "" : result.error().description());

    RationalTime end;
    const auto frames = decodeSmall(out, &end);
    ASSERT_FALSE(frames.empty());
    const RationalTime origin = frames.front().time;
    const VideoTrack& track = *video.asset->video();
    const RationalTime oneFrame(track.frameRate.den, track.frameRate.num);
    const RationalTime span = end - origin;
    EXPECT_LE(span, composition->duration() + oneFrame) << span.toString();
    EXPECT_GE(span, composition->duration() - oneFrame) << span.toString();
    // An output time is known to half a tick of the file's clock: either end of that span will do.
    const RationalTime halfTick(1, 2 * origin.timescale());
    for (const Frame& f : frames) {
      const RationalTime o = f.time - origin;
      const auto differenceAt = [&](RationalTime t) {
        return difference(f.grey, frameAt(source, timeline.sourceTimeForOutput(t)).grey);
      };
      EXPECT_LT(std::min(differenceAt(o - halfTick), differenceAt(o + halfTick)), kSameExportedFrame)
          << "output " << o.toString();
    }
  }
}

}  // namespace
}  // namespace vantrix
