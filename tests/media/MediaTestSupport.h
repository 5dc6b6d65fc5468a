#pragma once

// Shared by the media tests.

#include "media/CompositionBuilder.h"
#include "media/MediaAsset.h"

#include "MediaFixture.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <chrono>

namespace vantrix {
inline void PrintTo(RationalTime t, std::ostream* os) { *os << t.toString(); }
inline void PrintTo(const AppError& e, std::ostream* os) { *os << toString(e.kind()); }
}  // namespace vantrix

namespace vantrix::testing {

// The player reports through the event loop of the thread that made it.
inline void ensureCoreApplication() {
  static int argc = 1;
  static char name[] = "media_tests", *argv[] = {name, nullptr};
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

// ms(2500) is 2.5 s.
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

// nullopt for a call that succeeded.
template <typename T>
std::optional<AppError> refusal(const std::expected<T, AppError>& result) {
  return result ? std::nullopt : std::optional(result.error());
}

inline RationalTime frameSpan(const std::vector<DecodedFrame>& frames) {
  return frames.back().time + frames.back().duration - frames.front().time;
}

// The source second whose tone plays over output [from, to), -1 (silence) when sped up; nullopt
// within `margin` of a change of stretch or source second, or of either end.
inline std::optional<int> expectedSecond(const Composition& c, RationalTime from, RationalTime to,
                                         RationalTime margin) {
  if (from < margin || to + margin >= c.duration()) return std::nullopt;
  const CompositionEdit* edit = c.videoEditAt(from);
  if (edit != c.videoEditAt(from - margin) || edit != c.videoEditAt(to + margin)) return std::nullopt;
  if (edit->speed) return -1;
  const int first = static_cast<int>(edit->sourceTimeAt(from - margin).seconds());
  return first == static_cast<int>(edit->sourceTimeAt(to + margin).seconds()) ? std::optional(first) : std::nullopt;
}

// The sample folder beside the checkout (never copied into it): tests that need it skip without it.
inline std::filesystem::path realWorldFile(const char* relative = "") {
  return std::filesystem::path(VANTRIX_REAL_WORLD_DIR) / relative;
}
inline bool haveRealWorld() {
  std::error_code ec;
  return std::filesystem::is_directory(realWorldFile(), ec);
}

}  // namespace vantrix::testing
