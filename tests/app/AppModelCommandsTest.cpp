#include "AppTestSupport.h"

namespace vantrix {

// Plants states the public commands never produce.
struct AppModelTestAccess {
  static void plantSelection(AppModel& model, Uuid id) { model.m_selectedSegmentId = id; }
};

namespace {

namespace fs = std::filesystem;
using namespace vantrix::testing;

// Every test starts from the clip open with two segments, a [0.5, 1.0) at x2 and b [2.0, 2.5) at
// x8, and an empty undo history.
class CommandsTest : public AppModelTest {
 protected:
  void SetUp() override {
    AppModelTest::SetUp();
    m_clip = copyFixture(clipSpec(), "clip.mp4");
    m_model = makeModel();
    openAndWait(*m_model, m_clip);
    m_model->addSegment(ms(500), ms(1000), Speed::x2);
    m_model->addSegment(ms(2000), ms(2500), Speed::x8);
    m_undo.clear();
    a = segments().at(0).id;
    b = segments().at(1).id;
  }
  void TearDown() override {
    m_model.reset();
    AppModelTest::TearDown();
  }

  const std::vector<SpeedSegment>& segments() const { return m_model->timeline()->segments(); }
  AppModel& model() { return *m_model; }
  const SpeedTimeline& timeline() const { return *m_model->timeline(); }

  // The session on disk holds exactly the current timeline.
  void expectSaved() const {
    const auto session = SessionStore().loadForVideo(QString::fromStdString(m_clip.string()));
    ASSERT_TRUE(session);
    EXPECT_EQ(session->trimStart, timeline().trimStart());
    EXPECT_EQ(session->trimEnd, timeline().trimEnd());
    EXPECT_EQ(session->segments, timeline().segments());
  }
  // The preview is (re)built from the current timeline.
  void expectRebuilt() const {
    EXPECT_TRUE(waitUntil([&] { return m_model->compositionTimeline() == m_model->timeline(); }));
  }

  fs::path m_clip;
  std::unique_ptr<AppModel> m_model;
  Uuid a, b;
};

// A segment expected after a command: its range and speed, and which of a and b it is (none for
// a new one).
struct Row {
  std::int64_t startMs, endMs;
  Speed speed;
  char which;  // 'a', 'b' or 0
};

struct CommandCase {
  const char* name;
  std::function<void(AppModel&, const Uuid& a, const Uuid& b)> act;
  const char* actionName;
  std::int64_t trimStartMs;
  std::int64_t trimEndMs;  // -1: the whole video
  std::vector<Row> after;
  std::optional<char> selectedAfter;  // 'a', 'b', or none for no selection
};
void PrintTo(const CommandCase& c, std::ostream* os) { *os << c.name; }

// clang-format off
const CommandCase kCommands[] = {
    {"AddSegment", [](AppModel& m, auto&, auto&) { m.addSegment(ms(1200), ms(1800), Speed::x4); },
     "Add Segment", 0, -1, {{500, 1000, Speed::x2, 'a'}, {1200, 1800, Speed::x4, 0}, {2000, 2500, Speed::x8, 'b'}},
     std::nullopt},
    {"ResizeSegment", [](AppModel& m, const Uuid& a, auto&) { m.select(a); m.resizeSegment(a, ms(250), ms(1000)); },
     "Resize Segment", 0, -1, {{250, 1000, Speed::x2, 'a'}, {2000, 2500, Speed::x8, 'b'}}, 'a'},
    {"Trim", [](AppModel& m, auto&, auto&) { m.setTrim(ms(750), ms(2250)); },
     "Trim", 750, 2250, {{750, 1000, Speed::x2, 'a'}, {2000, 2250, Speed::x8, 'b'}}, std::nullopt},
    {"TrimDroppingTheSelectedSegment", [](AppModel& m, auto&, const Uuid& b) { m.select(b); m.setTrim(ms(0), ms(1500)); },
     "Trim", 0, 1500, {{500, 1000, Speed::x2, 'a'}}, std::nullopt},
    {"ChangeSpeed", [](AppModel& m, auto&, const Uuid& b) { m.select(b); m.changeSpeed(b, Speed::x16); },
     "Change Speed", 0, -1, {{500, 1000, Speed::x2, 'a'}, {2000, 2500, Speed::x16, 'b'}}, 'b'},
    {"DeleteSegment", [](AppModel& m, const Uuid& a, auto&) { m.select(a); m.deleteSelectedSegment(); },
     "Delete Segment", 0, -1, {{2000, 2500, Speed::x8, 'b'}}, std::nullopt},
    {"CommitMarkedBackwards",
     [](AppModel& m, auto&, auto&) {
       m.seek(ms(1800)); m.markOut(); m.seek(ms(1200)); m.markIn(); m.commitPendingRegion(Speed::x4);
     },
     "Add Segment", 0, -1, {{500, 1000, Speed::x2, 'a'}, {1200, 1800, Speed::x4, 0}, {2000, 2500, Speed::x8, 'b'}},
     'n'},
};
// clang-format on

class CommandTableTest : public CommandsTest, public ::testing::WithParamInterface<CommandCase> {
 protected:
  void expectRows(const CommandCase& c) {
    const RationalTime trimEnd = c.trimEndMs < 0 ? model().duration() : ms(c.trimEndMs);
    EXPECT_EQ(timeline().trimStart(), ms(c.trimStartMs));
    EXPECT_EQ(timeline().trimEnd(), trimEnd);
    ASSERT_EQ(segments().size(), c.after.size());
    for (std::size_t i = 0; i < c.after.size(); ++i) {
      const Row& r = c.after[i];
      const SpeedSegment& s = segments()[i];
      EXPECT_EQ(s.start, ms(r.startMs)) << i;
      EXPECT_EQ(s.end, ms(r.endMs)) << i;
      EXPECT_EQ(s.speed, r.speed) << i;
      const bool isA = s.id == a, isB = s.id == b;
      EXPECT_EQ(isA, r.which == 'a') << i;
      EXPECT_EQ(isB, r.which == 'b') << i;
    }
  }
  std::optional<Uuid> expectedSelection(std::optional<char> which) {
    if (!which) return std::nullopt;
    if (*which == 'a') return a;
    if (*which == 'b') return b;
    for (const auto& s : segments())
      if (s.id != a && s.id != b) return s.id;  // 'n': the new segment
    return std::nullopt;
  }
};

TEST_P(CommandTableTest, DoUndoRedo) {
  const CommandCase& c = GetParam();
  const SpeedTimeline before = timeline();

  c.act(model(), a, b);
  expectRows(c);
  const std::optional<Uuid> selected = model().selectedSegmentId();
  EXPECT_EQ(selected, expectedSelection(c.selectedAfter));
  ASSERT_EQ(m_undo.count(), 1);
  EXPECT_EQ(m_undo.undoText(), QString::fromUtf8(c.actionName));
  expectSaved();
  expectRebuilt();
  const SpeedTimeline after = timeline();

  m_undo.undo();
  EXPECT_EQ(timeline(), before);
  EXPECT_EQ(m_undo.redoText(), QString::fromUtf8(c.actionName));
  expectSaved();
  expectRebuilt();
  // A selection survives undo only while its segment exists, and neither undo nor redo selects.
  const bool survives = selected && std::ranges::any_of(before.segments(), [&](auto& s) { return s.id == *selected; });
  const std::optional<Uuid> selectedAfterUndo = survives ? selected : std::nullopt;
  EXPECT_EQ(model().selectedSegmentId(), selectedAfterUndo);

  m_undo.redo();
  EXPECT_EQ(timeline(), after);
  EXPECT_EQ(model().selectedSegmentId(), selectedAfterUndo);
  EXPECT_EQ(m_undo.undoText(), QString::fromUtf8(c.actionName));
  expectSaved();
  expectRebuilt();
}

INSTANTIATE_TEST_SUITE_P(Commands, CommandTableTest, ::testing::ValuesIn(kCommands),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(CommandsTest, DeleteWithAStaleSelectionStillMakesAStepThatChangesNothing) {
  const SpeedTimeline before = timeline();
  AppModelTestAccess::plantSelection(model(), Uuid::random());
  model().deleteSelectedSegment();
  EXPECT_EQ(model().selectedSegmentId(), std::nullopt);
  EXPECT_EQ(timeline(), before);
  ASSERT_EQ(m_undo.count(), 1);
  EXPECT_EQ(m_undo.undoText(), QStringLiteral("Delete Segment"));
  m_undo.undo();
  EXPECT_EQ(timeline(), before);
}

// Edits the views should never offer: refused, logged, and nothing changes.
struct RefusalCase {
  const char* name;
  std::function<void(AppModel&, const Uuid& a, const Uuid& b)> act;
  const char* line;
};
void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }

const RefusalCase kRefusals[] = {
    {"AddReversed", [](AppModel& m, auto&, auto&) { m.addSegment(ms(1800), ms(1200), Speed::x4); },
     "addSegment rejected by domain (should be unreachable): invalidRange"},
    {"AddOverlapping", [](AppModel& m, auto&, auto&) { m.addSegment(ms(800), ms(1200), Speed::x4); },
     "addSegment rejected by domain (should be unreachable): overlap"},
    {"ResizeOntoNeighbour", [](AppModel& m, const Uuid& a, auto&) { m.resizeSegment(a, ms(500), ms(2200)); },
     "resizeSegment rejected by domain (should be unreachable): overlap"},
    {"ResizeUnknown", [](AppModel& m, auto&, auto&) { m.resizeSegment(Uuid::random(), ms(0), ms(100)); },
     "resizeSegment rejected by domain (should be unreachable): noSuchSegment"},
    {"TrimReversed", [](AppModel& m, auto&, auto&) { m.setTrim(ms(2000), ms(1000)); },
     "setTrim rejected by domain (should be unreachable): invalidTrim"},
    {"SpeedOfUnknown", [](AppModel& m, auto&, auto&) { m.changeSpeed(Uuid::random(), Speed::x2); },
     "changeSpeed rejected by domain (should be unreachable): noSuchSegment"},
};

class RefusalTest : public CommandsTest, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(RefusalTest, ChangesNothingAndLogs) {
  model().select(b);
  model().seek(ms(2900));
  model().markIn();
  const SpeedTimeline before = timeline();
  const auto pending = model().pendingRegion();
  LogCapture log;
  GetParam().act(model(), a, b);
  EXPECT_EQ(timeline(), before);
  EXPECT_EQ(model().selectedSegmentId(), b);
  EXPECT_EQ(model().pendingRegion(), pending);
  EXPECT_EQ(model().currentTime(), ms(2900));
  EXPECT_EQ(m_undo.count(), 0);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].category, QStringLiteral("vantrix.app"));
  EXPECT_EQ(lines[0].type, QtCriticalMsg);
  EXPECT_EQ(lines[0].message, QString::fromUtf8(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(Commands, RefusalTest, ::testing::ValuesIn(kRefusals),
                         [](const auto& row) { return std::string(row.param.name); });

// Committing marks: what is added, what is selected, what happens to the marks.
struct CommitCase {
  const char* name;
  std::optional<std::int64_t> inMs, outMs;
  bool selectAFirst;
  bool adds;          // a segment from the earlier mark to the later one at x4
  bool marksCleared;  // otherwise they are kept as they were
  const char* line;   // logged in vantrix.app, or null
};
void PrintTo(const CommitCase& c, std::ostream* os) { *os << c.name; }

const CommitCase kCommits[] = {
    {"EqualMarks", 1500, 1500, false, false, false, nullptr},
    {"OnlyIn", 1500, std::nullopt, false, false, false, nullptr},
    {"OnlyOut", std::nullopt, 1500, false, false, false, nullptr},
    {"Forwards", 1200, 1800, true, true, true, nullptr},
    {"Overlapping", 800, 1500, true, false, true, "addSegment rejected by domain (should be unreachable): overlap"},
};

class CommitTest : public CommandsTest, public ::testing::WithParamInterface<CommitCase> {};

TEST_P(CommitTest, AddsSelectsAndClears) {
  const CommitCase& c = GetParam();
  if (c.selectAFirst) model().select(a);
  if (c.inMs) {
    model().seek(ms(*c.inMs));
    model().markIn();
  }
  if (c.outMs) {
    model().seek(ms(*c.outMs));
    model().markOut();
  }
  const auto marks = model().pendingRegion();
  ASSERT_EQ(marks, (PendingRegion{c.inMs ? std::optional(ms(*c.inMs)) : std::nullopt,
                                  c.outMs ? std::optional(ms(*c.outMs)) : std::nullopt}));
  const SpeedTimeline before = timeline();
  LogCapture log;
  model().commitPendingRegion(Speed::x4);

  EXPECT_EQ(model().pendingRegion(), c.marksCleared ? std::nullopt : marks);
  EXPECT_EQ(log.messages("vantrix.app"), c.line ? QStringList{QString::fromUtf8(c.line)} : QStringList{});
  if (!c.adds) {
    EXPECT_EQ(timeline(), before);
    EXPECT_EQ(m_undo.count(), 0);
    // A commit that tried and failed drops the selection; one that never tried keeps it.
    EXPECT_EQ(model().selectedSegmentId(), c.marksCleared || !c.selectAFirst ? std::nullopt : std::optional(a));
    return;
  }
  ASSERT_EQ(segments().size(), 3u);
  const SpeedSegment& added = segments()[1];
  EXPECT_EQ(added.start, ms(std::min(*c.inMs, *c.outMs)));
  EXPECT_EQ(added.end, ms(std::max(*c.inMs, *c.outMs)));
  EXPECT_EQ(added.speed, Speed::x4);
  EXPECT_EQ(model().selectedSegmentId(), added.id);
  EXPECT_EQ(model().selectedSpeed(), Speed::x4);
  EXPECT_EQ(m_undo.count(), 1);
}

INSTANTIATE_TEST_SUITE_P(Commands, CommitTest, ::testing::ValuesIn(kCommits),
                         [](const auto& row) { return std::string(row.param.name); });

// What a trim does to the marks and the playhead (the trim itself is in the command table).
struct TrimSideCase {
  const char* name;
  std::optional<std::int64_t> inMs, outMs;
  std::int64_t playheadMs;
  std::int64_t trimStartMs, trimEndMs;
  std::optional<PendingRegion> marksAfter;
  std::int64_t playheadAfterMs;
};
void PrintTo(const TrimSideCase& c, std::ostream* os) { *os << c.name; }

const TrimSideCase kTrimSides[] = {
    {"MarksCollapseOntoTheStart", 100, 300, 1500, 500, 2900, std::nullopt, 1500},
    {"MarksCollapseOntoTheEnd", 2950, 2920, 1500, 500, 2900, std::nullopt, 1500},
    {"OneMarkIsClamped", 100, std::nullopt, 1500, 500, 2900, PendingRegion{ms(500), std::nullopt}, 1500},
    {"MarksInsideStay", 1200, 1800, 1500, 500, 2900, PendingRegion{ms(1200), ms(1800)}, 1500},
    {"MarksSpanningAreCut", 100, 2950, 1500, 500, 2900, PendingRegion{ms(500), ms(2900)}, 1500},
    {"PlayheadAfterTheEndMovesIn", std::nullopt, std::nullopt, 2950, 0, 2600, std::nullopt, 2600},
    {"PlayheadBeforeTheStartMovesIn", std::nullopt, std::nullopt, 200, 400, 2900, std::nullopt, 400},
};

class TrimSideTest : public CommandsTest, public ::testing::WithParamInterface<TrimSideCase> {};

TEST_P(TrimSideTest, MarksAndPlayhead) {
  const TrimSideCase& c = GetParam();
  if (c.inMs) {
    model().seek(ms(*c.inMs));
    model().markIn();
  }
  if (c.outMs) {
    model().seek(ms(*c.outMs));
    model().markOut();
  }
  model().seek(ms(c.playheadMs));
  model().setTrim(ms(c.trimStartMs), ms(c.trimEndMs));
  EXPECT_EQ(model().pendingRegion(), c.marksAfter);
  EXPECT_EQ(model().currentTime(), ms(c.playheadAfterMs));
  // Marks and playhead are not part of undo.
  m_undo.undo();
  EXPECT_EQ(model().pendingRegion(), c.marksAfter);
  EXPECT_EQ(model().currentTime(), ms(c.playheadAfterMs));
}

INSTANTIATE_TEST_SUITE_P(Commands, TrimSideTest, ::testing::ValuesIn(kTrimSides),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(CommandsTest, SelectionFollowsTheTimeline) {
  model().select(b);
  EXPECT_EQ(model().selectedSpeed(), Speed::x8);
  model().select(Uuid::random());
  EXPECT_EQ(model().selectedSegmentId(), std::nullopt);
  EXPECT_EQ(model().selectedSpeed(), std::nullopt);
  model().select(a);
  model().select(std::nullopt);
  EXPECT_EQ(model().selectedSegmentId(), std::nullopt);
}

}  // namespace
}  // namespace vantrix
