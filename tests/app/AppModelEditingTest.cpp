// Opening a video (with its session), and the editing commands with undo.

#include "AppTestSupport.h"

namespace vantrix {

// Plants states the public commands never produce.
struct AppModelTestAccess {
  static void plantSelection(AppModel& model, Uuid id) { model.m_selectedSegmentId = id; }
};

namespace {

using namespace vantrix::testing;
using Mark = std::optional<int>;

// Everything about a model that a failed or superseded open must leave alone.
auto stateOf(const AppModel& m, const QUndoStack& undo) {
  return std::tuple(m.phase(), describe(m), m.thumbnails().size(), undo.count(), undo.index());
}

// A fast failure from the empty window; then with A open (and edited, another owner's step on the
// shared stack): B held loading long enough for the spinner, C's result already queued, and a
// fast failure, which returns to A untouched; B, released late, never writes; D opens afresh.
TEST_F(AppModelTest, OpeningFailsBackToWhereItStartedAndSucceedsAfresh) {
  Rig rig;
  const fs::path b = copyClip("b.mp4"), c = copyClip("c.mp4");
  for (const fs::path& held : {b, c}) rig.heldLoads[held] = std::make_shared<Rig::Held>();
  auto model = makeModel(rig.services());
  const auto failOpen = [&] {
    LogCapture log;
    model->dismissError();
    model->openVideo(dir() / "gone.mp4");
    ASSERT_TRUE(waitUntil([&] { return model->phase().kind != AppModel::Phase::Kind::loading; }));
    rig.fireSpinner();  // the delay passes after the failure
    EXPECT_FALSE(model->showsLoadingIndicator());
    EXPECT_EQ(model->activeError(), AppError::fileMoved());
    EXPECT_EQ(log.messages("vantrix.app"), QStringList{"Open failed: Vantrix can't find this file. It may have been "
                                                       "moved or deleted. Open it again from its current location."});
  };
  failOpen();
  EXPECT_TRUE(model->phase() == AppModel::Phase::empty() && !model->timeline());

  openAndWait(*model, copyClip("a.mp4"));
  m_undo.push(new QUndoCommand(QStringLiteral("Typing")));
  model->addSegment(ms(500), ms(1000), Speed::x2);
  model->setTrim(ms(100), ms(2900));
  m_undo.undo();  // the redo side must survive as well
  model->select(model->timeline()->segments().front().id);
  model->seek(ms(1500));
  model->markIn();
  model->requestThumbnails(2, 60, 1);
  const auto before = stateOf(*model, m_undo);
  model->openVideo(b);
  EXPECT_FALSE(model->showsLoadingIndicator());
  rig.fireSpinner();
  EXPECT_TRUE(model->showsLoadingIndicator());
  model->openVideo(c);
  rig.heldLoads[c]->release();
  ASSERT_TRUE(waitHoldingEvents([&] { return rig.heldLoads[c]->returned != 0; }));
  failOpen();
  EXPECT_EQ(stateOf(*model, m_undo), before);
  rig.heldLoads[b]->release();
  ASSERT_TRUE(waitUntil([&] { return rig.heldLoads[b]->returned != 0; }));
  EXPECT_EQ(rig.heldLoads[b]->returned, 2) << "B's load was not asked to stop";
  runEventsFor(100);
  EXPECT_EQ(stateOf(*model, m_undo), before);
  EXPECT_EQ(model->activeError(), AppError::fileMoved());

  openAndWait(*model, copyClip("d.mov"));
  EXPECT_EQ(describe(*model), "0-3000 @0");
  EXPECT_TRUE(model->thumbnails().empty());  // A's filmstrip must not pass for D's
  // A's steps do nothing to D and go; the other owner's step stays.
  while (m_undo.canUndo() && m_undo.undoText() != QStringLiteral("Typing")) m_undo.undo();
  EXPECT_EQ(describe(*model), "0-3000 @0");
  EXPECT_TRUE(m_undo.canUndo());
}

// A video reopened in a new model comes back as it was left, unless the session no longer fits
// it; without a bookmark nothing is saved.
TEST_F(AppModelTest, SessionsRestoreTheEditsOrStartFreshAndSayWhy) {
  const auto overlap = [](const fs::path& clip) {  // fingerprint kept, so the store trusts it
    Session session = SessionStore().loadForVideo(qs(clip)).value();
    session.segments = {{Uuid::random(), ms(500), ms(1500), Speed::x2},
                        {Uuid::random(), ms(1000), ms(2000), Speed::x4}};
    SessionStore().save(session);
  };
  const auto touch = [](const fs::path& c) {
    fs::last_write_time(c, fs::last_write_time(c) + std::chrono::seconds(7));
  };
  const std::tuple<std::string, std::function<void(const fs::path&)>, const char*, QString> rows[] = {
      {"kept", [](const fs::path&) {}, "vantrix.app", ""},
      {"touched", touch, "vantrix.persistence", "Session discarded: source size/mtime mismatch (file changed)."},
      {"overlapping", overlap, "vantrix.app", "Restored session violated a domain invariant; starting fresh: overlap"},
      {"no bookmark", [](const fs::path&) {}, "vantrix.app", ""},
  };
  for (const auto& [name, spoil, category, line] : rows) {
    SCOPED_TRACE(name);
    const fs::path clip = copyClip(name + ".mp4");
    AppServices services = realServices();
    if (name == "no bookmark") services.makeBookmark = [](const QString&) { return std::nullopt; };
    auto model = openModel(clip, services);
    model->addSegment(ms(2000), ms(2500), Speed::x8);
    model->addSegment(ms(500), ms(1000), Speed::x2);
    model->setTrim(ms(250), ms(2750));
    m_undo.undo();
    m_undo.redo();
    EXPECT_EQ(describe(*model), "250-2750 500-1000x2 2000-2500x8 @250");
    EXPECT_EQ(QFile::exists(SessionStore().sessionFilePath(qs(clip))), name != "no bookmark");
    model.reset();
    spoil(clip);
    LogCapture log;
    model = openModel(clip);
    EXPECT_EQ(describe(*model), name == "kept" ? "250-2750 500-1000x2 2000-2500x8 @0" : "0-3000 @0");
    EXPECT_EQ(log.messages(category), line.isEmpty() ? QStringList() : QStringList{line});
  }
}

// The clip open with segments a [0.5, 1.0) at x2 and b [2.0, 2.5) at x8.
class CommandsTest : public AppModelTest {
 protected:
  void SetUp() override {
    AppModelTest::SetUp();
    model = openModel(clip = copyClip());
    model->addSegment(ms(500), ms(1000), Speed::x2);
    model->addSegment(ms(2000), ms(2500), Speed::x8);
    m_undo.clear();
  }
  // The session on disk and the installed preview both hold the current timeline.
  void expectSavedAndRebuilt() const {
    const auto session = SessionStore().loadForVideo(qs(clip));
    ASSERT_TRUE(session);
    const SpeedTimeline& t = *model->timeline();
    EXPECT_EQ(std::tuple(session->trimStart, session->trimEnd, session->segments),
              std::tuple(t.trimStart(), t.trimEnd(), t.segments()));
    EXPECT_TRUE(installed(*model));
  }

  fs::path clip;
  std::unique_ptr<AppModel> model;
};

// Each row starts from nothing selected, the marks and the playhead given, acts, and shows what
// `describe` gives after it. A named action is one undo step under that name; undo and redo put
// back each other's timeline, select nothing (a selection stays while its segment exists), leave
// the marks and the playhead, and save and rebuild each time. Edits the views never offer are
// refused and logged as unreachable.
TEST_F(CommandsTest, EveryCommandInATable) {
  using Act = std::function<void(AppModel&, Uuid a, Uuid b)>;
  const Act commit = [](AppModel& m, Uuid, Uuid) { m.commitPendingRegion(Speed::x4); };
  // clang-format off
  const std::tuple<QString, Mark, Mark, int, Act, std::string, QString> rows[] = {
      // action, in, out, playhead, act, after, log line
      {"Add Segment", {}, {}, 0, [](AppModel& m, Uuid, Uuid) { m.addSegment(ms(1200), ms(1800), Speed::x4); },
       "0-3000 500-1000x2 1200-1800x4 2000-2500x8 @0", ""},
      {"Add Segment", 1800, 1200, 0, commit, "0-3000 500-1000x2 1200-1800x4* 2000-2500x8 @0", ""},  // marked backwards
      {"", 1500, 1500, 0, commit, "0-3000 500-1000x2 2000-2500x8 [1500-1500] @0", ""},
      {"", 800, 1500, 0, [&](AppModel& m, Uuid a, Uuid b) { m.select(a), commit(m, a, b); },
       "0-3000 500-1000x2 2000-2500x8 @0", "addSegment rejected by domain (should be unreachable): overlap"},
      {"Resize Segment", {}, {}, 0, [](AppModel& m, Uuid a, Uuid) { m.select(a), m.resizeSegment(a, ms(250), ms(1000)); },
       "0-3000 250-1000x2* 2000-2500x8 @0", ""},
      {"Change Speed", {}, {}, 0, [](AppModel& m, Uuid, Uuid b) { m.select(b), m.changeSpeed(b, Speed::x16); },
       "0-3000 500-1000x2 2000-2500x16* @0", ""},
      {"Delete Segment", {}, {}, 0, [](AppModel& m, Uuid a, Uuid) { m.select(a), m.deleteSelectedSegment(); },
       "0-3000 2000-2500x8 @0", ""},
      {"Delete Segment", {}, {}, 0, [](AppModel& m, Uuid, Uuid) {
         m.select(Uuid::random());  // refused by the public way in
         AppModelTestAccess::plantSelection(m, Uuid::random()), m.deleteSelectedSegment();
       }, "0-3000 500-1000x2 2000-2500x8 @0", ""},
      {"Trim", {}, {}, 0, [](AppModel& m, Uuid, Uuid b) { m.select(b), m.setTrim(ms(0), ms(1500)); },
       "0-1500 500-1000x2 @0", ""},
      {"Trim", 100, 300, 1500, [](AppModel& m, Uuid, Uuid) { m.setTrim(ms(750), ms(2250)); },  // the marks collapse
       "750-2250 750-1000x2 2000-2250x8 @1500", ""},
      {"Trim", 100, {}, 200, [](AppModel& m, Uuid, Uuid) { m.setTrim(ms(400), ms(2900)); },
       "400-2900 500-1000x2 2000-2500x8 [400-] @400", ""},
      {"Trim", 1200, 1800, 2950, [](AppModel& m, Uuid, Uuid) { m.setTrim(ms(0), ms(2600)); },
       "0-2600 500-1000x2 2000-2500x8 [1200-1800] @2600", ""},
  };
  // clang-format on
  const SpeedTimeline start = *model->timeline();
  const Uuid a = start.segments()[0].id, b = start.segments()[1].id;
  for (const auto& [action, in, out, playhead, act, after, line] : rows) {
    SCOPED_TRACE(after);
    model->select(std::nullopt);
    model->cancelPendingRegion();
    if (in) model->seek(ms(*in)), model->markIn();
    if (out) model->seek(ms(*out)), model->markOut();
    model->seek(ms(playhead));
    LogCapture log;
    act(*model, a, b);
    EXPECT_EQ(describe(*model), after);
    EXPECT_EQ(log.messages("vantrix.app"), line.isEmpty() ? QStringList() : QStringList{line});
    ASSERT_EQ(m_undo.count(), action.isEmpty() ? 0 : 1);
    if (action.isEmpty()) continue;
    EXPECT_EQ(m_undo.undoText(), action);
    expectSavedAndRebuilt();
    const SpeedTimeline done = *model->timeline();
    const std::optional<Uuid> selected = model->selectedSegmentId();
    m_undo.undo();
    EXPECT_EQ(model->timeline(), start);
    expectSavedAndRebuilt();
    m_undo.redo();
    EXPECT_EQ(model->timeline(), done);
    expectSavedAndRebuilt();
    const bool kept = selected == a || selected == b;  // a segment the undo did not take away
    EXPECT_EQ(describe(*model), kept ? after : QString::fromStdString(after).remove('*').toStdString());
    m_undo.undo();
    m_undo.clear();
  }
}

}  // namespace
}  // namespace vantrix
