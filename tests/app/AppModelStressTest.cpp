// A long editing session on one model with the real player playing: a seeded random script of
// strip drags, trims, speed changes, marks, selection, deletes, undo and redo, seeks and playback,
// with the GUI event loop run between commands so that decoding, time ticks and composition
// rebuilds interleave with the edits. The script is then replayed, without playback and without
// running the event loop, on a second model; both must hold the same document after every step.
// VANTRIX_STRESS_SEED repeats a failed run.

#include "AppTestSupport.h"

#include "model/TimelineGeometry.h"

#include <QCoreApplication>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>

#include <unistd.h>

namespace vantrix {
namespace {

using namespace vantrix::testing;

constexpr int kSteps = 2000;
constexpr double kStripWidth = 640;
constexpr int kMaxPauseMs = 12;  // events run for 0 to this many ms after each command
// Under the sanitizers the resident size is mostly their runtimes' (ASan's quarantine of freed
// blocks, TSan's shadow), so it is reported there but not checked; LeakSanitizer finds leaks.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kChecksResidentSize = false;
#else
constexpr bool kChecksResidentSize = true;
#endif

// One command, in terms that mean the same on any model holding the same document: segments by
// their place in the (sorted) segment list, times as resolved when the command was made.
struct Step {
  // clang-format off
  enum Kind { drag, commit, cancel, markIn, markOut, resize, trim, speed, select, remove, undo, redo, seek, play, strip };
  // clang-format on
  Kind kind = seek;
  int segment = -1;  // a segment by place, none: -1; for `strip`, the filmstrip's slot count
  RationalTime a = RationalTime::zero(), b = RationalTime::zero();
  Speed speedValue = Speed::x4;
};
const char* const kKindNames[] = {"drag",   "commit", "cancel", "markIn", "markOut", "resize", "trim", "speed",
                                  "select", "remove", "undo",   "redo",   "seek",    "play",   "strip"};

// What must come out the same: the document without the segments' random ids, the selection by
// place, the marks and the undo history's shape.
struct Snapshot {
  RationalTime trimStart, trimEnd;
  std::vector<std::tuple<RationalTime, RationalTime, Speed>> segments{};
  int selected = -1;
  std::optional<PendingRegion> marks{};
  int undoIndex = 0, undoCount = 0;
  friend bool operator==(const Snapshot&, const Snapshot&) = default;
};

std::string describe(const Snapshot& s) {
  std::ostringstream out;
  out << "trim [" << s.trimStart.toString() << ", " << s.trimEnd.toString() << "), segments";
  for (const auto& [start, end, speed] : s.segments)
    out << " [" << start.toString() << ", " << end.toString() << ") " << speedName(speed);
  out << ", selected " << s.selected << ", marks ";
  const auto mark = [](const std::optional<RationalTime>& t) { return t ? t->toString() : "-"; };
  if (s.marks) out << mark(s.marks->inPoint) << "/" << mark(s.marks->outPoint);
  out << ", undo " << s.undoIndex << "/" << s.undoCount;
  return out.str();
}

Snapshot snapshot(const AppModel& model, const QUndoStack& undo) {
  Snapshot s{.trimStart = model.timeline()->trimStart(), .trimEnd = model.timeline()->trimEnd()};
  for (const SpeedSegment& segment : model.timeline()->segments()) {
    if (segment.id == model.selectedSegmentId()) s.selected = static_cast<int>(s.segments.size());
    s.segments.emplace_back(segment.start, segment.end, segment.speed);
  }
  s.marks = model.pendingRegion();
  s.undoIndex = undo.index();
  s.undoCount = undo.count();
  return s;
}

// Makes the next command the way the strip, the chips, the toolbar and the keys would, from what
// `model` shows now.
Step nextStep(std::mt19937_64& rng, const AppModel& model) {
  std::discrete_distribution<int> kinds{/*drag*/ 14,   /*commit*/ 8, /*cancel*/ 3, /*markIn*/ 5, /*markOut*/ 5,
                                        /*resize*/ 12, /*trim*/ 4,   /*speed*/ 6,  /*select*/ 6, /*remove*/ 4,
                                        /*undo*/ 10,   /*redo*/ 6,   /*seek*/ 8,   /*play*/ 5,   /*strip*/ 1};
  const SpeedTimeline& t = *model.timeline();
  const auto& segments = t.segments();
  const TimelineGeometry g(kStripWidth, model.duration());
  const RationalTime minimum = TimelineGeometry::minimumLength(model.duration());
  const auto x = [&] { return std::uniform_real_distribution<double>(-20, kStripWidth + 20)(rng); };
  const auto anySegment = [&](int from) {
    return std::uniform_int_distribution<int>(from, static_cast<int>(segments.size()) - 1)(rng);
  };
  const auto anySpeed = [&] { return kAllSpeeds[std::uniform_int_distribution<std::size_t>(0, 3)(rng)]; };

  // A region with both marks is usually confirmed next.
  if (const auto& marks = model.pendingRegion(); marks && marks->inPoint && marks->outPoint && rng() % 4 != 0)
    return {.kind = Step::commit, .speedValue = anySpeed()};
  Step step{.kind = static_cast<Step::Kind>(kinds(rng)), .speedValue = anySpeed()};
  switch (step.kind) {
    case Step::drag:
      // A drag that proposes nothing is a tap on the strip, which seeks.
      if (auto range = g.proposedRange(x(), x(), t.trimStart(), t.trimEnd(), segments)) {
        step.a = range->start, step.b = range->end;
      } else {
        step = {.kind = Step::seek, .a = g.timeAtX(x())};
      }
      break;
    case Step::resize:
    case Step::speed:
      if (segments.empty()) return {.kind = Step::select};
      step.segment = anySegment(0);
      if (step.kind == Step::resize) {
        const auto edge = rng() % 2 ? TimelineGeometry::Edge::start : TimelineGeometry::Edge::end;
        const auto range =
            g.resizedRange(segments[step.segment], edge, x(), t.trimStart(), t.trimEnd(), segments, minimum);
        step.a = range.start, step.b = range.end;
      }
      break;
    case Step::trim: {
      // A handle moves from where it is, in or out.
      const bool start = rng() % 2;
      const double from = g.xForTime(start ? t.trimStart() : t.trimEnd());
      const double to = from + std::uniform_real_distribution<double>(-kStripWidth / 4, kStripWidth / 4)(rng);
      const auto edge = start ? TimelineGeometry::TrimEdge::start : TimelineGeometry::TrimEdge::end;
      const auto range = g.trimmedRange(edge, to, t.trimStart(), t.trimEnd(), minimum);
      step.a = range.start, step.b = range.end;
      break;
    }
    case Step::select:
      step.segment = anySegment(-1);
      break;
    case Step::markIn:
    case Step::markOut:
      step.a = model.currentTime();
      break;
    case Step::seek:
      step.a = g.timeAtX(x());
      break;
    case Step::strip:
      step.segment = std::uniform_int_distribution<int>(1, 8)(rng);
      break;
    default:
      break;
  }
  return step;
}

// `live` is the session with playback; the replay marks where the live playhead was instead, and
// plays nothing.
void apply(const Step& step, AppModel& model, QUndoStack& undo, bool live) {
  const auto id = [&] { return model.timeline()->segments().at(static_cast<std::size_t>(step.segment)).id; };
  // clang-format off
  switch (step.kind) {
    case Step::drag: model.placePendingRegion(step.a, step.b); break;
    case Step::commit: model.commitPendingRegion(step.speedValue); break;
    case Step::cancel: model.cancelPendingRegion(); break;
    case Step::markIn:
    case Step::markOut:
      if (!live) model.seek(step.a);
      step.kind == Step::markIn ? model.markIn() : model.markOut();
      break;
    case Step::resize: model.resizeSegment(id(), step.a, step.b); break;
    case Step::trim: model.setTrim(step.a, step.b); break;
    case Step::speed: model.changeSpeed(id(), step.speedValue); break;
    case Step::select: model.select(step.segment < 0 ? std::nullopt : std::optional(id())); break;
    case Step::remove: model.deleteSelectedSegment(); break;
    case Step::undo: undo.undo(); break;
    case Step::redo: undo.redo(); break;
    case Step::seek: model.seek(step.a); break;
    case Step::play:
      if (live) model.togglePlayPause();
      break;
    case Step::strip:
      if (live) model.requestThumbnails(step.segment, TimelineGeometry::kStripHeight, 1);
      break;
  }
  // clang-format on
}

// Resident set size in pages.
long residentPages() {
  long size = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident;
}

class StressTest : public AppModelTest {};

TEST_F(StressTest, LongEditingSessionWhilePlayingMatchesAQuietReplay) {
  const char* seedText = std::getenv("VANTRIX_STRESS_SEED");
  const std::uint64_t seed = seedText ? std::strtoull(seedText, nullptr, 10) : std::random_device()();
  SCOPED_TRACE("VANTRIX_STRESS_SEED=" + std::to_string(seed));
  std::mt19937_64 rng(seed);

  const auto clip = copyClip();
  auto model = makeModel();
  openAndWait(*model, clip);
  model->togglePlayPause();

  std::vector<std::pair<Step, Snapshot>> script;
  script.reserve(kSteps);
  long midpointPages = 0;
  LogCapture log;
  int installs = 0;
  QObject::connect(model.get(), &AppModel::compositionChanged, [&] { ++installs; });
  for (int i = 0; i < kSteps; ++i) {
    const Step step = nextStep(rng, *model);
    apply(step, *model, m_undo, true);
    QCoreApplication::processEvents();
    runEventsFor(std::uniform_int_distribution<int>(0, kMaxPauseMs)(rng));
    script.emplace_back(step, snapshot(*model, m_undo));
    if (i == kSteps / 2) midpointPages = residentPages();
  }
  const long endPages = residentPages();

  // The last edit's preview is installed, the session on disk holds the document, and nothing
  // failed on the way besides refused commits.
  EXPECT_TRUE(waitUntil([&] { return model->compositionTimeline() == model->timeline(); }));
  EXPECT_FALSE(model->player()->error()) << model->player()->error()->description();
  const auto session = SessionStore().loadForVideo(QString::fromStdString(clip.string()));
  ASSERT_TRUE(session);
  EXPECT_EQ(
      std::make_tuple(session->trimStart, session->trimEnd, session->segments),
      std::make_tuple(model->timeline()->trimStart(), model->timeline()->trimEnd(), model->timeline()->segments()));
  int refused = 0;
  for (const LogCapture::Line& line : log.lines()) {
    if (line.type != QtCriticalMsg && line.type != QtWarningMsg && line.type != QtFatalMsg) continue;
    // Marks are set anywhere the playhead goes, so a commit may cross a segment or the trim.
    const bool expected = line.message.startsWith("addSegment rejected by domain (should be unreachable): ");
    refused += expected;
    EXPECT_TRUE(expected) << line.category.toStdString() << ": " << line.message.toStdString();
  }

  QUndoStack quietUndo;
  AppServices quietServices = realServices();
  quietServices.makeBookmark = [](const QString&) { return std::nullopt; };
  auto quiet = std::make_unique<AppModel>(SessionStore(), quietServices);
  quiet->setUndoStack(&quietUndo);
  openAndWait(*quiet, copyClip("replay.mp4"));
  for (std::size_t i = 0; i < script.size(); ++i) {
    apply(script[i].first, *quiet, quietUndo, false);
    const Snapshot replayed = snapshot(*quiet, quietUndo);
    if (replayed != script[i].second) {
      ADD_FAILURE() << "step " << i << " (" << kKindNames[script[i].first.kind]
                    << ") left\n  live:   " << describe(script[i].second) << "\n  replay: " << describe(replayed);
      break;
    }
  }

  const long pageKb = sysconf(_SC_PAGESIZE) / 1024;
  std::printf(
      "seed %llu: %d commands, %d commits refused, %d previews installed, %lld pictures shown, %zu "
      "segments at the end; resident %ld kB at the midpoint, %ld kB at the end\n",
      static_cast<unsigned long long>(seed), kSteps, refused, installs,
      static_cast<long long>(model->player()->statistics().framesPresented), model->timeline()->segments().size(),
      midpointPages * pageKb, endPages * pageKb);
  if (kChecksResidentSize) {
    EXPECT_LT(endPages, midpointPages * 11 / 10) << "resident memory grew by 10 % or more over the second half";
  }
}

}  // namespace
}  // namespace vantrix
