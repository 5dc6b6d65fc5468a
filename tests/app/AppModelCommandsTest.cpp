#include "AppTestSupport.h"

#include <tuple>

namespace vantrix {

// Plants states the public commands never produce.
struct AppModelTestAccess {
  static void plantSelection(AppModel& model, Uuid id) { model.m_selectedSegmentId = id; }
};

namespace {

using namespace vantrix::testing;
using Shape = std::tuple<std::int64_t, std::int64_t, Speed>;  // a segment's start and end in ms, and speed
using Mark = std::optional<std::int64_t>;

// Every test starts from the clip open with two segments, a [0.5, 1.0) at x2 and b [2.0, 2.5) at
// x8, and an empty undo history.
class CommandsTest : public AppModelTest {
 protected:
  void SetUp() override {
    AppModelTest::SetUp();
    m_clip = copyClip();
    m_model = makeModel();
    openAndWait(*m_model, m_clip);
    m_model->addSegment(ms(500), ms(1000), Speed::x2);
    m_model->addSegment(ms(2000), ms(2500), Speed::x8);
    m_undo.clear();
    a = segments().at(0).id;
    b = segments().at(1).id;
  }

  AppModel& model() { return *m_model; }
  const SpeedTimeline& timeline() const { return *m_model->timeline(); }
  const std::vector<SpeedSegment>& segments() const { return timeline().segments(); }
  std::vector<Shape> shapes() const {
    std::vector<Shape> out;
    for (const SpeedSegment& s : segments())
      out.emplace_back(s.start.convertedToTimescale(1000).value(), s.end.convertedToTimescale(1000).value(), s.speed);
    return out;
  }
  // Replaces the marks by those given, each set with the playhead there.
  void mark(Mark in, Mark out) {
    model().cancelPendingRegion();
    for (auto [time, set] : {std::pair{in, &AppModel::markIn}, std::pair{out, &AppModel::markOut}})
      if (time) {
        model().seek(ms(*time));
        (model().*set)();
      }
  }
  // The session on disk and the installed preview both hold the current timeline.
  void expectSavedAndRebuilt() const {
    const auto session = SessionStore().loadForVideo(QString::fromStdString(m_clip.string()));
    ASSERT_TRUE(session);
    EXPECT_EQ(session->trimStart, timeline().trimStart());
    EXPECT_EQ(session->trimEnd, timeline().trimEnd());
    EXPECT_EQ(session->segments, timeline().segments());
    EXPECT_TRUE(waitUntil([&] { return m_model->compositionTimeline() == m_model->timeline(); }));
  }

  std::filesystem::path m_clip;
  std::unique_ptr<AppModel> m_model;
  Uuid a, b;
};

struct CommandCase {
  const char* name;
  std::function<void(AppModel&, const Uuid& a, const Uuid& b)> act;
  const char* actionName;
  std::int64_t trimStartMs, trimEndMs;  // -1: the end of the video
  std::vector<Shape> after;
  char selectedAfter;  // 'a', 'b', 'n' (the new segment) or 0 (none)
};
void PrintTo(const CommandCase& c, std::ostream* os) { *os << c.name; }

// clang-format off
const CommandCase kCommands[] = {
    {"AddSegment", [](AppModel& m, auto&, auto&) { m.addSegment(ms(1200), ms(1800), Speed::x4); },
     "Add Segment", 0, -1, {{500, 1000, Speed::x2}, {1200, 1800, Speed::x4}, {2000, 2500, Speed::x8}}, 0},
    {"ResizeSegment", [](AppModel& m, const Uuid& a, auto&) { m.select(a); m.resizeSegment(a, ms(250), ms(1000)); },
     "Resize Segment", 0, -1, {{250, 1000, Speed::x2}, {2000, 2500, Speed::x8}}, 'a'},
    {"Trim", [](AppModel& m, auto&, auto&) { m.setTrim(ms(750), ms(2250)); },
     "Trim", 750, 2250, {{750, 1000, Speed::x2}, {2000, 2250, Speed::x8}}, 0},
    {"TrimDroppingTheSelectedSegment", [](AppModel& m, auto&, const Uuid& b) { m.select(b); m.setTrim(ms(0), ms(1500)); },
     "Trim", 0, 1500, {{500, 1000, Speed::x2}}, 0},
    {"ChangeSpeed", [](AppModel& m, auto&, const Uuid& b) { m.select(b); m.changeSpeed(b, Speed::x16); },
     "Change Speed", 0, -1, {{500, 1000, Speed::x2}, {2000, 2500, Speed::x16}}, 'b'},
    {"DeleteSegment", [](AppModel& m, const Uuid& a, auto&) { m.select(a); m.deleteSelectedSegment(); },
     "Delete Segment", 0, -1, {{2000, 2500, Speed::x8}}, 0},
    {"CommitMarkedBackwards",
     [](AppModel& m, auto&, auto&) {
       m.seek(ms(1800)); m.markOut(); m.seek(ms(1200)); m.markIn(); m.commitPendingRegion(Speed::x4);
     },
     "Add Segment", 0, -1, {{500, 1000, Speed::x2}, {1200, 1800, Speed::x4}, {2000, 2500, Speed::x8}}, 'n'},
};
// clang-format on

class CommandTableTest : public CommandsTest, public ::testing::WithParamInterface<CommandCase> {};

TEST_P(CommandTableTest, DoUndoRedo) {
  const CommandCase& c = GetParam();
  const QString actionName = QString::fromUtf8(c.actionName);
  const SpeedTimeline before = timeline();

  c.act(model(), a, b);
  EXPECT_EQ(timeline().trimStart(), ms(c.trimStartMs));
  EXPECT_EQ(timeline().trimEnd(), c.trimEndMs < 0 ? model().duration() : ms(c.trimEndMs));
  EXPECT_EQ(shapes(), c.after);
  const std::optional<Uuid> selected = model().selectedSegmentId();
  if (c.selectedAfter == 'n')
    EXPECT_TRUE(selected && *selected != a && *selected != b);
  else
    EXPECT_EQ(selected, c.selectedAfter ? std::optional(c.selectedAfter == 'a' ? a : b) : std::nullopt);
  EXPECT_TRUE(!selected || std::ranges::any_of(segments(), [&](auto& s) { return s.id == *selected; }));
  EXPECT_EQ(model().pendingRegion(), std::nullopt);
  ASSERT_EQ(m_undo.count(), 1);
  EXPECT_EQ(m_undo.undoText(), actionName);
  expectSavedAndRebuilt();
  const SpeedTimeline after = timeline();

  // Neither undo nor redo selects; a selection stays while its segment exists.
  const std::optional<Uuid> selectedLater = selected == a || selected == b ? selected : std::nullopt;
  m_undo.undo();
  EXPECT_EQ(timeline(), before);
  EXPECT_EQ(model().selectedSegmentId(), selectedLater);
  EXPECT_EQ(m_undo.redoText(), actionName);
  expectSavedAndRebuilt();

  m_undo.redo();
  EXPECT_EQ(timeline(), after);
  EXPECT_EQ(model().selectedSegmentId(), selectedLater);
  EXPECT_EQ(m_undo.undoText(), actionName);
  expectSavedAndRebuilt();
}

INSTANTIATE_TEST_SUITE_P(Commands, CommandTableTest, ::testing::ValuesIn(kCommands),
                         [](const auto& row) { return std::string(row.param.name); });

// The public way to select refuses an unknown id; a stale selection still makes an undo step.
TEST_F(CommandsTest, SelectionNamesASegmentAndDeletingAStaleOneStillMakesAStep) {
  model().select(b);
  EXPECT_EQ(model().selectedSpeed(), Speed::x8);
  model().select(Uuid::random());
  EXPECT_EQ(model().selectedSegmentId(), std::nullopt);
  const SpeedTimeline before = timeline();
  AppModelTestAccess::plantSelection(model(), Uuid::random());
  model().deleteSelectedSegment();
  EXPECT_EQ(model().selectedSegmentId(), std::nullopt);
  EXPECT_EQ(timeline(), before);
  ASSERT_EQ(m_undo.count(), 1);
  EXPECT_EQ(m_undo.undoText(), QStringLiteral("Delete Segment"));
}

// Commits without two different marks do nothing. Edits the views never offer are refused and
// logged as unreachable; a commit refused so drops the marks and the selection.
TEST_F(CommandsTest, EditsThatChangeNothing) {
  const SpeedTimeline before = timeline();
  const auto commit = [&] { model().commitPendingRegion(Speed::x4); };
  const QString refused = QStringLiteral("%1 rejected by domain (should be unreachable): %2");
  // clang-format off
  const std::tuple<const char*, Mark, Mark, std::function<void()>, QStringList, bool> cases[] = {
      // what, in, out, act, log lines, drops the marks and the selection
      {"equal marks", 1500, 1500, commit, {}, false},
      {"only in", 1500, std::nullopt, commit, {}, false},
      {"only out", std::nullopt, 1500, commit, {}, false},
      {"commit overlapping a", 800, 1500, commit, {refused.arg("addSegment", "overlap")}, true},
      {"resize of no segment", 2900, std::nullopt, [&] { model().resizeSegment(Uuid::random(), ms(0), ms(100)); },
       {refused.arg("resizeSegment", "noSuchSegment")}, false},
      {"reversed trim", 2900, std::nullopt, [&] { model().setTrim(ms(2000), ms(1000)); },
       {refused.arg("setTrim", "invalidTrim")}, false},
      {"speed of no segment", 2900, std::nullopt, [&] { model().changeSpeed(Uuid::random(), Speed::x2); },
       {refused.arg("changeSpeed", "noSuchSegment")}, false},
  };
  // clang-format on
  for (const auto& [what, in, out, act, lines, dropsMarks] : cases) {
    SCOPED_TRACE(what);
    model().select(a);
    mark(in, out);
    const auto marks = model().pendingRegion();
    const RationalTime playhead = model().currentTime();
    LogCapture log;
    act();
    EXPECT_EQ(log.messages("vantrix.app"), lines);
    EXPECT_EQ(model().pendingRegion(), dropsMarks ? std::nullopt : marks);
    EXPECT_EQ(model().selectedSegmentId(), dropsMarks ? std::nullopt : std::optional(a));
    EXPECT_EQ(model().currentTime(), playhead);
    EXPECT_EQ(timeline(), before);
    EXPECT_EQ(m_undo.count(), 0);
  }
}

// What a trim does to the marks and the playhead, neither of which undo puts back.
TEST_F(CommandsTest, ATrimClampsTheMarksAndMovesThePlayheadIntoRange) {
  const std::tuple<const char*, Mark, Mark, std::int64_t, std::int64_t, std::int64_t, std::optional<PendingRegion>,
                   std::int64_t>
      cases[] = {
          // what, in, out, playhead, trim start, trim end, marks after, playhead after
          {"marks collapse onto the start", 100, 300, 1500, 500, 2900, std::nullopt, 1500},
          {"marks spanning are cut", 100, 2950, 1500, 500, 2900, PendingRegion{ms(500), ms(2900)}, 1500},
          {"one mark is clamped, the playhead before the start moves in", 100, std::nullopt, 200, 400, 2900,
           PendingRegion{ms(400), std::nullopt}, 400},
          {"marks inside stay, the playhead after the end moves in", 1200, 1800, 2950, 0, 2600,
           PendingRegion{ms(1200), ms(1800)}, 2600},
      };
  for (const auto& [what, in, out, playhead, trimStart, trimEnd, marksAfter, playheadAfter] : cases) {
    SCOPED_TRACE(what);
    mark(in, out);
    model().seek(ms(playhead));
    model().setTrim(ms(trimStart), ms(trimEnd));
    EXPECT_EQ(model().pendingRegion(), marksAfter);
    EXPECT_EQ(model().currentTime(), ms(playheadAfter));
    m_undo.undo();
    EXPECT_EQ(model().pendingRegion(), marksAfter);
    EXPECT_EQ(model().currentTime(), ms(playheadAfter));
  }
}

}  // namespace
}  // namespace vantrix
