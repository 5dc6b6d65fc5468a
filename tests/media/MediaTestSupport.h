#pragma once

// Shared by the media tests: fixtures opened as assets, timelines written compactly, the sample
// files kept beside the checkout, and the rule every output frame must follow, computed
// independently from the source's own decoded frames.

#include "media/CompositionBuilder.h"
#include "media/MediaAsset.h"

#include "MediaFixture.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

namespace vantrix {
inline void PrintTo(RationalTime t, std::ostream* os) { *os << t.toString(); }
inline void PrintTo(const AppError& e, std::ostream* os) { *os << toString(e.kind()); }
}  // namespace vantrix

namespace vantrix::testing {

// The player reports through the event loop of the thread that made it; suites that play create
// the application object once, in SetUpTestSuite.
inline void ensureCoreApplication() {
  static int argc = 1;
  static char name[] = "media_tests";
  static char* argv[] = {name, nullptr};
  if (!QCoreApplication::instance()) new QCoreApplication(argc, argv);
}

// Runs the event loop until `done` holds; false after `limit` (generous: sanitizer builds are slow).
template <typename Predicate>
bool waitFor(Predicate done, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  QElapsedTimer timer;
  timer.start();
  while (!done()) {
    if (timer.elapsed() > limit.count()) return false;
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    QThread::usleep(200);
  }
  return true;
}

// Times in milliseconds keep the tables short: ms(2500) is 2.5 s.
inline RationalTime ms(std::int64_t v) { return {v, 1000}; }

struct SegmentRow {
  std::int64_t startMs, endMs;
  Speed speed;
};

// A timeline of the asset's duration with an optional trim and segments, through the checked edits.
inline SpeedTimeline timelineFor(const MediaAsset& asset, std::optional<std::pair<std::int64_t, std::int64_t>> trimMs,
                                 const std::vector<SegmentRow>& segments) {
  SpeedTimeline t(asset.duration());
  if (trimMs) {
    EXPECT_TRUE(t.setTrim(ms(trimMs->first), ms(trimMs->second)));
  }
  for (const auto& s : segments) EXPECT_TRUE(t.addSegment(ms(s.startMs), ms(s.endMs), s.speed));
  return t;
}

inline std::shared_ptr<const MediaAsset> openAsset(const std::filesystem::path& file) {
  auto asset = MediaAsset::open(file);
  EXPECT_TRUE(asset) << file << ": " << (asset ? "" : asset.error().description());
  return asset ? *asset : nullptr;
}

inline std::shared_ptr<const Composition> compose(const SpeedTimeline& timeline,
                                                  const std::shared_ptr<const MediaAsset>& asset) {
  auto built = CompositionBuilder::build(timeline, asset);
  EXPECT_TRUE(built);
  return built ? *built : nullptr;
}

// The error of a call that failed; nullopt for one that succeeded.
template <typename T>
std::optional<AppError> refusal(const std::expected<T, AppError>& result) {
  return result ? std::nullopt : std::optional(result.error());
}

// From the first frame's start to the last frame's end.
inline RationalTime frameSpan(const std::vector<DecodedFrame>& frames) {
  return frames.back().time + frames.back().duration - frames.front().time;
}

// The barcode of the latest source frame at or before source time x; the first frame when x lies
// before every frame.
inline std::optional<std::int64_t> expectedBarcode(const std::vector<DecodedFrame>& source, RationalTime x) {
  std::optional<std::int64_t> found = source.empty() ? std::nullopt : source.front().barcode;
  for (const DecodedFrame& f : source) {
    if (f.time - source.front().time > x) break;
    found = f.barcode;
  }
  return found;
}

// The frame number the reader's frame rule shows at output time t for a source of the default
// recipe's 30 frames a second: every source frame at normal speed, the source's frame grid when
// sped up; the last frame from the end on.
inline std::int64_t expectedFrame(const Composition& composition, RationalTime t) {
  constexpr std::int64_t kRate = 30;
  if (const RationalTime last = composition.duration() - RationalTime(1, 90000); t > last) t = last;
  const CompositionEdit* edit = composition.videoEditAt(t);
  RationalTime instant = t;
  if (edit->speed) {
    const RationalTime grid(static_cast<std::int64_t>(std::floor(t.seconds() * kRate + 1e-9)), kRate);
    instant = std::max(grid, edit->outputStart);
  }
  const RationalTime source = edit->sourceTimeAt(instant);
  return source.value() * kRate / source.timescale();  // floor: times are not negative
}

// A file of the sample folder beside the checkout; the folder itself for "".
inline std::filesystem::path realWorldFile(const char* relative = "") {
  return std::filesystem::path(VANTRIX_REAL_WORLD_DIR) / relative;
}
// The folder is optional (never copied into the checkout): tests that need it skip without it.
inline bool haveRealWorld() {
  std::error_code ec;
  return std::filesystem::is_directory(realWorldFile(), ec);
}

}  // namespace vantrix::testing
