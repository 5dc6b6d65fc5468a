// The sample files from elsewhere, each opened (or refused), played and sought, shown in a filmstrip
// and exported with a sped-up region; frames are compared with the source's, downscaled to grey.

#include "media/Exporter.h"
#include "media/LoadedVideo.h"
#include "media/ThumbnailGenerator.h"

#include "FixtureDecoding.h"
#include "MediaTestSupport.h"

#include <QTemporaryDir>

#include <cctype>
#include <chrono>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace testing;

// Pictures are compared at this size in grey. Below these mean absolute differences they show the
// same frame: an exported frame differs from its source frame by at most 0.5, neighbouring source
// frames by 1.5 to 7 wherever the footage moves; a thumbnail (RGB by the file's colour matrix, read
// back as BT.601) by up to 6.7, by 23 and more when it is not upright.
constexpr int kSide = 32;
constexpr double kSameExportedFrame = 1;
constexpr double kSameThumbnail = 10;

struct Frame {
  RationalTime time;  // presentation timestamp, exact
  QImage grey;        // kSide x kSide, Format_Grayscale8
};

RationalTime ticks(std::int64_t value, AVRational timeBase) { return {value * timeBase.num, timeBase.den}; }

// Every frame of the first video stream, averaged down to kSide x kSide grey, stored orientation;
// `end` receives the stream's declared end (MP4 packet durations are unreliable with B-frames).
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

// The output times at which the picture changes, with the source frame shown from each.
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
      for (const Frame& f : source)
        consider(edit, edit.outputStart + (f.time - source.front().time) - edit.sourceStart);
      continue;
    }
    // Sped up: the frame grid of the source's nominal rate.
    const auto first = static_cast<std::int64_t>(edit.outputStart.seconds() * rate.num / rate.den) - 1;
    for (std::int64_t k = first; RationalTime(k * rate.den, rate.num) < edit.outputEnd(); ++k)
      consider(edit, RationalTime(k * rate.den, rate.num));
  }
  return changes;
}

// Plays the item on `clock`, moved by hand from one picture change to the next: each shows its
// source frame, and the player stops at the end without an error. Then exact seeks to some changes,
// and half-way to them from the one before, show the rule's frame.
void playsEveryChangeToTheEnd(Player& player, ManualClock& clock, const std::vector<Frame>& source) {
  const Composition& item = *player.currentItem();
  const auto changes = pictureChanges(item, source);
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
  for (const auto& [at, shown] : changes) {
    moveTo(at);
    ASSERT_TRUE(waitFor([&] { return player.currentFrame() && player.currentFrame()->sourceTime == shown; }, 10s))
        << "at output " << at.toString() << " not showing " << shown.toString();
  }
  moveTo(item.duration());
  ASSERT_TRUE(waitFor([&] { return ended; }));
  QObject::disconnect(connection);
  EXPECT_EQ(player.timeControlStatus(), Player::TimeControlStatus::paused);
  EXPECT_EQ(player.currentTime(), item.duration());
  EXPECT_FALSE(player.error()) << player.error()->description();
  for (std::size_t i = 1; i < changes.size(); i += std::max<std::size_t>(1, changes.size() / 8)) {
    for (const auto& [at, shown] :
         {changes[i], std::pair((changes[i - 1].first + changes[i].first).dividedBy(2), changes[i - 1].second)}) {
      bool landed = false;
      player.seek(at, {}, {}, [&](bool done) { landed = done; });
      ASSERT_TRUE(waitFor([&] { return landed; })) << "seek to " << at.toString();
      EXPECT_EQ(player.currentFrame()->sourceTime, shown) << "seek to " << at.toString();
    }
  }
}

// The sample files, in order; one empty path, which skips, when the folder is absent.
std::vector<fs::path> sampleFiles() {
  if (!haveRealWorld()) return {fs::path()};
  std::vector<fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(realWorldFile())) {
    const auto ext = entry.path().extension();
    if (ext == ".mp4" || ext == ".mov" || ext == ".m4v") files.push_back(entry.path());
  }
  std::ranges::sort(files);
  return files;
}

class RealWorldTest : public ::testing::TestWithParam<fs::path> {};

TEST_P(RealWorldTest, OpensOrIsRefusedThenPlaysFillsAFilmstripAndExports) {
  if (GetParam().empty()) GTEST_SKIP() << "no real-world media folder";
  ensureCoreApplication();  // the player reports through the event loop
  const auto decoded = readFrames(GetParam());
  auto video = LoadedVideo::load(GetParam());
  if (decoded.empty()) {  // no decodable video: audio only, damaged
    EXPECT_EQ(refusal(video), AppError::unsupportedFile());
    return;
  }
  ASSERT_TRUE(video);
  EXPECT_EQ(video->asset->duration(), frameSpan(decoded));
  const auto source = decodeSmall(video->path);
  const SpeedTimeline edit = editFor(video->asset->duration(), source.size());
  const auto composition = compose(edit, video->asset);
  ASSERT_TRUE(composition);

  // Every frame of its own to its end, then of the edit. Exact pictures only: the clock moves on as
  // soon as each picture shows, so catch-up sampling would rightly take over when sped up.
  auto clock = std::make_shared<ManualClock>();
  ASSERT_TRUE(video->attachPlayer({clock, std::make_unique<NullAudioOutput>(), 0, false}));
  video->player->setVideoSize({kSide, kSide});
  playsEveryChangeToTheEnd(*video->player, *clock, source);
  video->player->replaceCurrentItem(composition);
  playsEveryChangeToTheEnd(*video->player, *clock, source);

  // A filmstrip of eight: every time with a frame within the tolerance gets a thumbnail showing one
  // of those frames upright; the others none.
  const RationalTime duration = video->asset->duration();
  const auto near = [&](const Frame& f, RationalTime t) {
    const RationalTime gap = f.time - source.front().time - t;
    return std::max(gap, RationalTime::zero() - gap) <= ThumbnailGenerator::kTolerance;
  };
  std::vector<RationalTime> times;
  std::vector<int> expected, delivered;
  for (int i = 0; i < 8; ++i) {
    times.push_back(RationalTime(duration.value() * i, duration.timescale() * 8));
    if (std::ranges::any_of(source, [&](const Frame& f) { return near(f, times.back()); })) expected.push_back(i);
  }
  ThumbnailGenerator(video->asset).generate(times, 64, 1, {}, [&](ThumbnailGenerator::Thumbnail&& t) {
    delivered.push_back(t.index);
    double closest = 255;
    for (const Frame& f : source) {
      const QImage upright = video->asset->video()->transform.applied(f.grey);
      if (near(f, times[t.index])) closest = std::min(closest, difference(greyOf(t.image), upright));
    }
    EXPECT_LT(closest, kSameThumbnail) << "thumbnail at " << times[t.index].toString();
  });
  EXPECT_EQ(delivered, expected);

  // The edit exported: its length, and each frame the source frame the timeline maps it to.
  QTemporaryDir dir;
  const fs::path out = dir.filePath("out.mp4").toStdString();
  const auto result = Exporter::exportComposition(composition, out, {}, {});
  ASSERT_EQ(result, Exporter::Outcome::finished) << (result ? "" : result.error().description());
  RationalTime end;
  const auto frames = decodeSmall(out, &end);
  ASSERT_FALSE(frames.empty());
  const RationalTime origin = frames.front().time;
  const double oneFrame = av_q2d(av_inv_q(video->asset->video()->frameRate));
  EXPECT_LE(std::abs((end - origin - composition->duration()).seconds()), oneFrame) << (end - origin).toString();
  // An output time is known to half a tick of the file's clock: either end of that span will do.
  const RationalTime halfTick(1, 2 * origin.timescale());
  for (const Frame& f : frames) {
    const RationalTime o = f.time - origin;
    const auto differenceAt = [&](RationalTime t) {
      return difference(f.grey, frameAt(source, edit.sourceTimeForOutput(t)).grey);
    };
    EXPECT_LT(std::min(differenceAt(o - halfTick), differenceAt(o + halfTick)), kSameExportedFrame)
        << "exported frame at " << o.toString();
  }
}

INSTANTIATE_TEST_SUITE_P(Samples, RealWorldTest, ::testing::ValuesIn(sampleFiles()), [](const auto& sample) {
  std::string name = sample.param.empty() ? "none" : fs::relative(sample.param, realWorldFile()).string();
  std::ranges::replace_if(
      name, [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
  return name;
});

}  // namespace
}  // namespace vantrix
