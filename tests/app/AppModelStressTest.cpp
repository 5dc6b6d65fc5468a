// 2000 seeded random commands with the real player playing and events run between them; a quiet
// replay must hold the same document after each. VANTRIX_STRESS_SEED repeats a run.

#include "AppTestSupport.h"

#include <fstream>
#include <random>

#include <unistd.h>

namespace vantrix::testing {

// A random command, resolved from what the live model shows so that it means the same in the replay
// (drags are usually committed next; some commands are refused). Only the live one plays and fills strips.
using Command = std::function<void(AppModel&, QUndoStack&, bool live)>;
static Command nextCommand(std::mt19937_64& rng, const AppModel& shown) {
  const auto random = [&](int from, int to) { return std::uniform_int_distribution<int>(from, to)(rng); };
  const auto& segments = shown.timeline()->segments();
  const auto& marks = shown.pendingRegion();
  const int at = random(-1, int(segments.size()) - 1), stills = random(1, 8);
  const auto id = [at](const AppModel& m) { return m.timeline()->segments().at(size_t(at)).id; };
  const RationalTime a = ms(random(-100, 3100)), b = a + ms(random(1, 600));
  const RationalTime trimStart = ms(random(-50, 1400)), trimEnd = ms(random(1600, 3050));
  const RationalTime start = at < 0 ? a : segments[size_t(at)].start + ms(random(-300, 300));
  const RationalTime end = at < 0 ? b : segments[size_t(at)].end + ms(random(-300, 300));
  const Speed speed = kAllSpeeds[random(0, 3)];
  const bool commit = marks && marks->inPoint && marks->outPoint && random(0, 3);
  // clang-format off
  switch (commit ? -1 : random(0, 10)) {
    case -1: return [=](AppModel& m, QUndoStack&, bool) { m.commitPendingRegion(speed); };
    case 0: return [=](AppModel& m, QUndoStack&, bool) { m.placePendingRegion(a, b); };
    case 1: return [=](AppModel& m, QUndoStack&, bool) { if (at >= 0) m.resizeSegment(id(m), start, end); };
    case 2: return [=](AppModel& m, QUndoStack&, bool) { m.setTrim(trimStart, trimEnd); };
    case 3: return [=](AppModel& m, QUndoStack&, bool) { if (at >= 0) m.changeSpeed(id(m), speed); };
    case 4: return [=](AppModel& m, QUndoStack&, bool) { m.select(at < 0 ? std::nullopt : std::optional(id(m))); };
    case 5: return [=](AppModel& m, QUndoStack&, bool) { m.deleteSelectedSegment(); };
    case 6: return [=](AppModel&, QUndoStack& undo, bool) { undo.undo(); };
    case 7: return [=](AppModel&, QUndoStack& undo, bool) { undo.redo(); };
    case 8: return [=](AppModel& m, QUndoStack&, bool) { m.seek(a); };
    case 9: return [=](AppModel& m, QUndoStack&, bool live) { if (live) m.togglePlayPause(); };
    default: return [=](AppModel& m, QUndoStack&, bool live) { if (live) m.requestThumbnails(stills, 64, 1); };
  }
  // clang-format on
}

static long residentKb() {
  long size = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE) / 1024;
}

class StressTest : public AppModelTest {};

TEST_F(StressTest, TwoThousandCommandsWhilePlayingMatchAQuietReplay) {
  const unsigned seed = qEnvironmentVariableIsSet("VANTRIX_STRESS_SEED") ? qgetenv("VANTRIX_STRESS_SEED").toUInt()
                                                                         : std::random_device()();
  SCOPED_TRACE("VANTRIX_STRESS_SEED=" + std::to_string(seed));
  std::mt19937_64 rng(seed);
  auto model = openModel(copyClip());
  model->togglePlayPause();
  std::vector<std::pair<Command, std::string>> script;
  long midKb = 0;
  for (int i = 0; i < 2000; ++i) {
    const Command command = nextCommand(rng, *model);
    command(*model, m_undo, true);
    runEventsFor(std::uniform_int_distribution<int>(0, 12)(rng));
    script.emplace_back(command, describe(*model, false) + " undo " + std::to_string(m_undo.index()));
    if (i == 1000) midKb = residentKb();
  }
  const long endKb = residentKb();
  EXPECT_TRUE(installed(*model) && !model->player()->error());  // the last edit's preview, and no failure

  QUndoStack replayUndo;
  auto replay = makeModel(realServices(), &replayUndo);
  openAndWait(*replay, copyClip("replay.mp4"));
  for (std::size_t i = 0; i < script.size(); ++i) {
    script[i].first(*replay, replayUndo, false);
    ASSERT_EQ(describe(*replay, false) + " undo " + std::to_string(replayUndo.index()), script[i].second) << i;
  }
  std::printf("seed %u: resident %ld kB at the midpoint, %ld kB at the end\n", seed, midKb, endKb);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // where the sanitizers' runtimes dominate
  EXPECT_LT(endKb, midKb * 11 / 10) << "resident memory grew by 10 % or more over the second half";
#endif
}

}  // namespace vantrix::testing
