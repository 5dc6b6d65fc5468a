// 2000 seeded random commands on one model with the real player playing, the event loop run
// between them so that decoding, time ticks and preview rebuilds interleave with the edits; a
// replay on a quiet second model must hold the same document after every step.
// VANTRIX_STRESS_SEED repeats a failed run.

#include "AppTestSupport.h"

#include <fstream>
#include <random>

#include <unistd.h>

namespace vantrix {
namespace {

using namespace vantrix::testing;

enum Kind {
  place,
  commit,
  cancel,
  markIn,
  markOut,
  resize,
  trim,
  speed,
  select,
  remove,
  undo,
  redo,
  seek,
  play,
  strip
};
// A command in terms that mean the same on any model holding the same document: a segment by its
// place (-1: none; for `strip`, the slot count), times as resolved when it was made.
struct Step {
  int kind, segment;
  RationalTime a, b;
  Speed speed;
};

// The next command, near what the model shows: regions of up to 0.6 s, edges moved by up to 0.3 s,
// marks at the playhead. Some are refused, as edits the views never offer.
Step nextStep(std::mt19937_64& rng, const AppModel& m) {
  const auto random = [&](int from, int to) { return std::uniform_int_distribution<int>(from, to)(rng); };
  const SpeedTimeline& t = *m.timeline();
  Step s{random(place, strip),
         random(-1, static_cast<int>(t.segments().size()) - 1),
         ms(random(-100, 3100)),
         {},
         kAllSpeeds[random(0, 3)]};
  s.b = s.a + ms(random(1, 600));
  if (m.pendingRegion() && m.pendingRegion()->inPoint && m.pendingRegion()->outPoint && random(0, 3)) s.kind = commit;
  if (s.kind == markIn || s.kind == markOut) s.a = m.currentTime();
  if (s.kind == trim) s.a = ms(random(-50, 1400)), s.b = ms(random(1600, 3050));
  if (s.kind == resize && s.segment >= 0) {
    const SpeedSegment& edited = t.segments()[static_cast<std::size_t>(s.segment)];
    s.a = edited.start + ms(random(-300, 300)), s.b = edited.end + ms(random(-300, 300));
  }
  if (s.kind == strip) s.segment = random(1, 8);
  return s;
}

// The live model plays and fills filmstrips; the replay seeks to where the live playhead was to mark.
void apply(const Step& s, AppModel& m, QUndoStack& history, bool live) {
  const auto id = [&] { return m.timeline()->segments().at(static_cast<std::size_t>(s.segment)).id; };
  // clang-format off
  switch (s.kind) {
    case place: m.placePendingRegion(s.a, s.b); break;
    case commit: m.commitPendingRegion(s.speed); break;
    case cancel: m.cancelPendingRegion(); break;
    case markIn: case markOut: if (!live) m.seek(s.a); s.kind == markIn ? m.markIn() : m.markOut(); break;
    case resize: if (s.segment >= 0) m.resizeSegment(id(), s.a, s.b); break;
    case trim: m.setTrim(s.a, s.b); break;
    case speed: if (s.segment >= 0) m.changeSpeed(id(), s.speed); break;
    case select: m.select(s.segment < 0 ? std::nullopt : std::optional(id())); break;
    case remove: m.deleteSelectedSegment(); break;
    case undo: history.undo(); break;
    case redo: history.redo(); break;
    case seek: m.seek(s.a); break;
    case play: if (live) m.togglePlayPause(); break;
    case strip: if (live) m.requestThumbnails(s.segment, 64, 1); break;
  }
  // clang-format on
}

long residentKb() {
  long size = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE) / 1024;
}

class StressTest : public AppModelTest {};

TEST_F(StressTest, TwoThousandCommandsWhilePlayingMatchAQuietReplay) {
  const char* seedText = std::getenv("VANTRIX_STRESS_SEED");
  const std::uint64_t seed = seedText ? std::strtoull(seedText, nullptr, 10) : std::random_device()();
  SCOPED_TRACE("VANTRIX_STRESS_SEED=" + std::to_string(seed));
  std::mt19937_64 rng(seed);
  auto model = openModel(copyClip());
  model->togglePlayPause();
  std::vector<std::pair<Step, std::string>> script;
  long midKb = 0;
  LogCapture log;
  for (int i = 0; i < 2000; ++i) {
    script.emplace_back(nextStep(rng, *model), "");
    apply(script.back().first, *model, m_undo, true);
    runEventsFor(std::uniform_int_distribution<int>(0, 12)(rng));
    script.back().second = describe(*model, false) + " undo " + std::to_string(m_undo.index());
    if (i == 1000) midKb = residentKb();
  }
  const long endKb = residentKb();
  // The last edit's preview is installed, and nothing failed besides refused edits.
  EXPECT_TRUE(installed(*model));
  EXPECT_FALSE(model->player()->error());
  for (const LogCapture::Line& line : log.lines())
    EXPECT_TRUE(line.type == QtInfoMsg || line.message.contains(" rejected by domain (should be unreachable): "))
        << line.category.toStdString() << ": " << line.message.toStdString();

  QUndoStack replayUndo;
  AppModel replay(SessionStore(), realServices());
  replay.setUndoStack(&replayUndo);
  openAndWait(replay, copyClip("replay.mp4"));
  for (std::size_t i = 0; i < script.size(); ++i) {
    apply(script[i].first, replay, replayUndo, false);
    ASSERT_EQ(describe(replay, false) + " undo " + std::to_string(replayUndo.index()), script[i].second)
        << "step " << i << ", kind " << script[i].first.kind;
  }
  std::printf("seed %llu: resident %ld kB at the midpoint, %ld kB at the end\n", static_cast<unsigned long long>(seed),
              midKb, endKb);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // where the sanitizers' runtimes dominate
  EXPECT_LT(endKb, midKb * 11 / 10) << "resident memory grew by 10 % or more over the second half";
#endif
}

}  // namespace
}  // namespace vantrix
