#include "AppTestSupport.h"

namespace vantrix {

struct AppModelTestAccess {  // plants states the public commands never produce
  static void plantSelection(AppModel& model, Uuid id) { model.m_selectedSegmentId = id; }
};

namespace testing {

// A fast failure (a missing file) from the empty window; then, with A open and edited: B held
// loading past the spinner's delay, C's result already queued, and a fast failure, which leaves A as
// it was; B, released late, never writes; D then opens afresh.
TEST_F(AppModelTest, OpeningFailsBackToWhereItStartedAndSucceedsAfresh) {
  Rig rig{.heldLoad = copyClip("b.mp4")};
  auto model = makeModel(rig.services());
  const auto failOpen = [&] {
    LogCapture log;
    QSignalSpy spinner(model.get(), &AppModel::showsLoadingIndicatorChanged);
    model->dismissError();
    model->openVideo(dir() / "gone.mp4");
    ASSERT_TRUE(waitUntil([&] { return model->activeError().has_value(); }));
    runEventsFor(300);  // past the spinner's delay, which the failure called off
    EXPECT_TRUE(spinner.isEmpty() && model->activeError() == AppError::fileMoved());
    EXPECT_EQ(log.messages("vantrix.app"), QStringList{"Open failed: Vantrix can't find this file. It may have been "
                                                       "moved or deleted. Open it again from its current location."});
  };
  failOpen();
  EXPECT_TRUE(model->phase() == AppModel::Phase::empty() && !model->timeline());

  openAndWait(*model, copyClip("a.mp4"));
  model->addSegment(ms(500), ms(1000), Speed::x2);
  model->setTrim(ms(100), ms(2900));
  m_undo.undo();  // the redo side must survive as well
  model->select(model->timeline()->segments().front().id);
  model->requestThumbnails(2, 60, 1);
  const auto state = [&] {
    return std::tuple(model->phase(), describe(*model), model->thumbnails().size(), m_undo.index());
  };
  const auto before = state();
  model->openVideo(rig.heldLoad);
  EXPECT_TRUE(!model->showsLoadingIndicator() && waitUntil([&] { return model->showsLoadingIndicator(); }));
  model->openVideo(copyClip("c.mp4"));
  ASSERT_TRUE(waitHoldingEvents([&] { return rig.loadsReturned == 3; }));
  failOpen();
  EXPECT_EQ(state(), before);
  rig.holdLoad = false;
  ASSERT_TRUE(waitUntil([&] { return rig.loadsReturned == 5; }));
  EXPECT_EQ(rig.loadsStopped, 1) << "B's load was not asked to stop";
  runEventsFor(100);
  EXPECT_EQ(state(), before);
  openAndWait(*model, copyClip("d.mov"));  // A's filmstrip must not pass for D's
  EXPECT_TRUE(describe(*model) == "0-3000 @0" && model->thumbnails().empty() && m_undo.count() == 0);
}

// A video reopened in a new model comes back as it was left, unless the session no longer fits it;
// without a bookmark the edits work and nothing is saved.
TEST_F(AppModelTest, SessionsRestoreTheEditsOrStartFreshAndSayWhy) {
  const auto overlap = [](const fs::path& clip) {  // the fingerprint kept, so the store trusts it
    Session session = SessionStore().loadForVideo(qs(clip)).value();
    session.segments.push_back({Uuid::random(), ms(800), ms(1500), Speed::x4});
    SessionStore().save(session);
  };
  const std::tuple<std::string, std::function<void(const fs::path&)>, const char*, QString> rows[] = {
      {"kept", [](auto&) {}, "vantrix.app", ""},
      {"touched", [](auto& c) { fs::last_write_time(c, fs::last_write_time(c) + std::chrono::hours(1)); },
       "vantrix.persistence", "Session discarded: source size/mtime mismatch (file changed)."},
      {"overlapping", overlap, "vantrix.app", "Restored session violated a domain invariant; starting fresh: overlap"},
      {"no bookmark", [](auto&) {}, "vantrix.app", ""},
  };
  for (const auto& [name, spoil, category, line] : rows) {
    SCOPED_TRACE(name);
    const fs::path clip = copyClip(name + ".mp4");
    AppServices services = realServices();
    if (name == "no bookmark") services.makeBookmark = [](const QString&) { return std::nullopt; };
    auto model = openModel(clip, services);
    model->addSegment(ms(500), ms(1000), Speed::x2);
    model->setTrim(ms(250), ms(2750));
    m_undo.undo();
    m_undo.redo();
    EXPECT_EQ(describe(*model), "250-2750 500-1000x2 @250");
    EXPECT_EQ(QFile::exists(SessionStore().sessionFilePath(qs(clip))), name != "no bookmark");
    const Uuid id = model->timeline()->segments()[0].id;
    model.reset();
    spoil(clip);
    LogCapture log;
    model = openModel(clip);
    EXPECT_EQ(describe(*model), name == "kept" ? "250-2750 500-1000x2 @0" : "0-3000 @0");
    EXPECT_TRUE(name != "kept" || model->timeline()->segments()[0].id != id);  // restored with a fresh id
    EXPECT_EQ(log.messages(category), line.isEmpty() ? QStringList() : QStringList{line});
  }
}

// From segment a [0.5, 1.0) at x2, each row sets the marks and the playhead, acts, and shows what
// `describe` gives. A named action is one undo step of that name; undo and redo restore each other's
// timeline, saved and previewed. Edits the views never offer are refused and logged as unreachable.
TEST_F(AppModelTest, EveryCommandInATable) {
  const fs::path clip = copyClip();
  auto model = openModel(clip);
  AppModel& m = *model;
  m.addSegment(ms(500), ms(1000), Speed::x2);
  m_undo.clear();
  const SpeedTimeline start = *m.timeline();
  const Uuid a = start.segments()[0].id;
  const auto holds = [&](const SpeedTimeline& t) {  // the model, the session on disk and the preview
    const Session saved = SessionStore().loadForVideo(qs(clip)).value_or(Session{});
    EXPECT_TRUE(m.timeline() == t && installed(m));
    EXPECT_EQ(std::tuple(saved.trimStart, saved.trimEnd, saved.segments),
              std::tuple(t.trimStart(), t.trimEnd(), t.segments()));
  };
  // clang-format off
  struct Row { QString action; std::optional<int> in, out; int playhead; std::function<void()> act; std::string after;
               QString log = {}; };
  const Row rows[] = {
      {"Add Segment", {}, {}, 0, [&] { m.addSegment(ms(1200), ms(1800), Speed::x4); },
       "0-3000 500-1000x2 1200-1800x4 @0"},
      {"Add Segment", 1800, 1200, 0, [&] { m.commitPendingRegion(Speed::x4); }, "0-3000 500-1000x2 1200-1800x4* @0"},
      {"", 1500, 1500, 0, [&] { m.commitPendingRegion(Speed::x4); }, "0-3000 500-1000x2 [1500-1500] @0"},
      {"", 800, 1500, 0, [&] { m.select(a), m.commitPendingRegion(Speed::x4); }, "0-3000 500-1000x2 @0",
       "addSegment rejected by domain (should be unreachable): overlap"},
      {"Resize Segment", {}, {}, 0, [&] { m.select(a), m.resizeSegment(a, ms(250), ms(1000)); },
       "0-3000 250-1000x2* @0"},
      {"Change Speed", {}, {}, 0, [&] { m.select(a), m.changeSpeed(a, Speed::x16); }, "0-3000 500-1000x16* @0"},
      {"Delete Segment", {}, {}, 0, [&] { m.select(a), m.deleteSelectedSegment(); }, "0-3000 @0"},
      {"Delete Segment", {}, {}, 0, [&] {  // a stale selection, which the public way in refuses
         m.select(Uuid::random());
         EXPECT_FALSE(m.selectedSegmentId());
         AppModelTestAccess::plantSelection(m, Uuid::random()), m.deleteSelectedSegment(); }, "0-3000 500-1000x2 @0"},
      {"Trim", {}, {}, 0, [&] { m.select(a), m.setTrim(ms(1000), ms(2500)); }, "1000-2500 @1000"},
      {"Trim", 100, 300, 1500, [&] { m.setTrim(ms(750), ms(2250)); }, "750-2250 750-1000x2 @1500"},  // marks collapse
      {"Trim", 100, 1200, 2950, [&] { m.setTrim(ms(400), ms(2600)); }, "400-2600 500-1000x2 [400-1200] @2600"},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.after);
    m.select(std::nullopt);
    m.cancelPendingRegion();
    if (row.in) m.seek(ms(*row.in)), m.markIn();
    if (row.out) m.seek(ms(*row.out)), m.markOut();
    m.seek(ms(row.playhead));
    LogCapture log;
    row.act();
    EXPECT_EQ(describe(m), row.after);
    EXPECT_EQ(log.messages("vantrix.app").join('\n'), row.log);
    EXPECT_EQ(std::pair(m_undo.count(), m_undo.undoText()), std::pair(row.action.isEmpty() ? 0 : 1, row.action));
    if (row.action.isEmpty()) continue;
    const SpeedTimeline done = *m.timeline();
    holds(done);
    m_undo.undo();
    holds(start);
    m_undo.redo();
    holds(done);
    m_undo.setIndex(0), m_undo.clear();
  }
}

}  // namespace testing
}  // namespace vantrix
