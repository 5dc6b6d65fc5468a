#include "AppTestSupport.h"

#include <QDir>
#include <QSignalSpy>

#include <atomic>
#include <deque>
#include <fstream>
#include <map>
#include <tuple>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace vantrix::testing;
using Kind = AppModel::Phase::Kind;

class OpeningTest : public AppModelTest {};

// Everything about a model that a failed or superseded open must leave alone.
auto stateOf(const AppModel& m, const QUndoStack& undo) {
  return std::tuple(m.phase(), m.timeline(), m.selectedSegmentId(), m.pendingRegion(), undo.count(), undo.index());
}

// Leaves the model with a segment selected, marks set, the playhead moved and two undo steps.
void edit(AppModel& model) {
  model.addSegment(ms(500), ms(1000), Speed::x2);
  model.setTrim(ms(100), ms(2900));
  model.select(model.timeline()->segments().front().id);
  model.seek(ms(1500));
  model.markIn();
}

// Loads of chosen files are held until the test releases them; the rest load at once.
struct HeldLoad {
  LoadGate gate;
  std::atomic<int> returned = 0;  // 1: returned, 2: returned after it was asked to stop
};
struct GatedLoads {
  std::map<fs::path, std::shared_ptr<HeldLoad>> held;

  void hold(const fs::path& path) { held[path] = std::make_shared<HeldLoad>(); }
  AppServices services() const {
    AppServices s = realServices();
    s.loadVideo = [held = held, real = s.loadVideo](const fs::path& path, std::stop_token stop) {
      const auto load = held.find(path);
      if (load != held.end()) load->second->gate.wait();
      auto result = real(path, {});  // a slow loader that finishes even when asked to stop
      if (load != held.end()) load->second->returned = stop.stop_requested() ? 2 : 1;
      return result;
    };
    return s;
  }
};

// B's open outlasts the spinner's (production) delay.
TEST_F(OpeningTest, ASlowOpenShowsTheSpinnerAndItsSuccessResetsAllButOtherOwnersUndo) {
  const fs::path a = copyClip("a.mp4"), b = copyClip("b.mov");
  GatedLoads loads;
  loads.hold(b);
  auto model = makeModel(loads.services());
  openAndWait(*model, a);
  m_undo.push(new QUndoCommand(QStringLiteral("Typing")));  // another owner's step on the shared stack
  edit(*model);
  model->requestThumbnails(2, 60, 1);
  ASSERT_EQ(model->thumbnails().size(), 2u);

  model->openVideo(b);
  EXPECT_FALSE(model->showsLoadingIndicator());
  EXPECT_TRUE(waitUntil([&] { return model->showsLoadingIndicator(); }, 5000));
  EXPECT_EQ(model->phase().kind, Kind::loading);
  loads.held[b]->gate.release();
  ASSERT_TRUE(waitUntil([&] { return model->phase().isEditing(); }));
  EXPECT_EQ(model->phase().video->path, b);
  const SpeedTimeline fresh(model->duration());
  EXPECT_EQ(model->timeline(), fresh);
  EXPECT_EQ(model->selectedSegmentId(), std::nullopt);
  EXPECT_EQ(model->pendingRegion(), std::nullopt);
  EXPECT_EQ(model->currentTime(), RationalTime::zero());
  EXPECT_TRUE(model->thumbnails().empty());  // A's filmstrip must not pass for B's
  EXPECT_FALSE(model->showsLoadingIndicator());
  EXPECT_EQ(model->activeError(), std::nullopt);
  // A's steps do nothing to B and go; the other owner's step stays.
  while (m_undo.canUndo() && m_undo.undoText() != QStringLiteral("Typing")) m_undo.undo();
  EXPECT_EQ(model->timeline(), fresh);
  EXPECT_TRUE(m_undo.canUndo());

  m_undo.clear();
  edit(*model);
  openAndWait(*model, a);
  EXPECT_EQ(m_undo.count(), 0);  // with only this model's steps, the history is simply emptied
}

// A spinner delay that passes only when the test says so.
struct DelayHandle final : DelayedCall {
  std::shared_ptr<bool> calledOff = std::make_shared<bool>(false);
  void cancel() override { *calledOff = true; }
  ~DelayHandle() override { *calledOff = true; }
};

// First from the empty window, then with a video open: the failure returns to where it started,
// shows its error and, failing before the delay passed, never the spinner.
TEST_F(OpeningTest, AFailedOpenReturnsToThePreviousStateAndShowsTheError) {
  std::function<void()> showSpinner;
  std::shared_ptr<bool> delayCalledOff;
  AppServices services = realServices();
  services.startDelay = [&](auto, std::function<void()> fn) -> std::unique_ptr<DelayedCall> {
    auto handle = std::make_unique<DelayHandle>();
    showSpinner = std::move(fn);
    delayCalledOff = handle->calledOff;
    return handle;
  };
  auto model = makeModel(services);
  QSignalSpy spinner(model.get(), &AppModel::showsLoadingIndicatorChanged);
  const auto failOpen = [&] {
    LogCapture log;
    model->dismissError();
    model->openVideo(dir() / "gone.mp4");
    ASSERT_TRUE(waitUntil([&] { return model->phase().kind != Kind::loading; }));
    if (!*delayCalledOff) showSpinner();  // the delay passes after the failure
    EXPECT_EQ(spinner.count(), 0);
    EXPECT_EQ(model->activeError(), AppError::fileMoved());
    EXPECT_EQ(log.messages("vantrix.app"),
              QStringList{"Open failed: Vantrix can't find this file. It may have been moved or deleted. Open it "
                          "again from its current location."});
  };
  failOpen();
  EXPECT_EQ(model->phase().kind, Kind::empty);
  EXPECT_EQ(model->timeline(), std::nullopt);

  openAndWait(*model, copyClip());
  edit(*model);
  m_undo.undo();  // an undone step too: the redo side must survive as well
  const auto before = stateOf(*model, m_undo);
  failOpen();
  EXPECT_EQ(stateOf(*model, m_undo), before);
}

// A newer open supersedes both a load still running (B) and a result already queued for the GUI
// thread (C); a failure after such opens returns to the video open before all of them.
TEST_F(OpeningTest, SupersededOpensNeverWriteAndAFailureReturnsToTheVideoBeforeThem) {
  const fs::path b = copyClip("b.mp4"), c = copyClip("c.mp4"), gone = dir() / "gone.mp4";
  GatedLoads loads;
  loads.hold(b);
  loads.hold(c);
  auto model = makeModel(loads.services());
  openAndWait(*model, copyClip("a.mp4"));
  edit(*model);
  const auto before = stateOf(*model, m_undo);

  model->openVideo(b);
  model->openVideo(c);
  loads.held[c]->gate.release();
  ASSERT_TRUE(waitHoldingEvents([&] { return loads.held[c]->returned != 0; }));
  model->openVideo(gone);
  ASSERT_TRUE(waitUntil([&] { return model->phase().kind != Kind::loading; }));
  EXPECT_EQ(stateOf(*model, m_undo), before);
  EXPECT_EQ(model->activeError(), AppError::fileMoved());

  std::deque<QSignalSpy> changes;
  for (int i = AppModel::staticMetaObject.methodOffset(); i < AppModel::staticMetaObject.methodCount(); ++i)
    if (const QMetaMethod m = AppModel::staticMetaObject.method(i); m.methodType() == QMetaMethod::Signal)
      changes.emplace_back(model.get(), m);
  loads.held[b]->gate.release();
  ASSERT_TRUE(waitUntil([&] { return loads.held[b]->returned != 0; }));
  EXPECT_EQ(loads.held[b]->returned, 2) << "B's load was not asked to stop";
  runEventsFor(100);
  for (const QSignalSpy& spy : changes) EXPECT_TRUE(spy.isEmpty()) << spy.signal().toStdString();
  EXPECT_EQ(stateOf(*model, m_undo), before);
}

// Sessions: a reopened video comes back as it was left, unless the session no longer fits.
class SessionTest : public AppModelTest {
 protected:
  // Opens `clip` in a model of its own, edits it and closes it; returns the edited timeline.
  SpeedTimeline editAndClose(const fs::path& clip) {
    auto model = makeModel();
    openAndWait(*model, clip);
    model->addSegment(ms(2000), ms(2500), Speed::x8);
    model->addSegment(ms(500), ms(1000), Speed::x2);
    model->setTrim(ms(250), ms(2750));
    SpeedTimeline edited = model->timeline().value();
    model.reset();
    m_undo.clear();
    return edited;
  }
};

TEST_F(SessionTest, EditsComeBackInANewModelWithNewIds) {
  const fs::path clip = copyClip();
  const SpeedTimeline edited = editAndClose(clip);
  auto reopened = makeModel();
  openAndWait(*reopened, clip);
  const SpeedTimeline& restored = reopened->timeline().value();
  EXPECT_EQ(restored.trimStart(), ms(250));
  EXPECT_EQ(restored.trimEnd(), ms(2750));
  ASSERT_EQ(restored.segments().size(), 2u);
  for (std::size_t i = 0; i < 2; ++i) {
    const SpeedSegment &was = edited.segments()[i], &is = restored.segments()[i];
    EXPECT_TRUE(is.start == was.start && is.end == was.end && is.speed == was.speed) << i;
    EXPECT_NE(is.id, was.id) << i;
  }
}

TEST_F(SessionTest, AStaleSessionOpensFreshAndLogsWhy) {
  const auto touch = [](const fs::path& clip) {
    fs::last_write_time(clip, fs::last_write_time(clip) + std::chrono::seconds(7));
  };
  // Rewrites the stored session (fingerprint kept, so the store trusts it) with overlapping segments.
  const auto overlap = [](const fs::path& clip) {
    const SessionStore store;
    Session session = store.loadForVideo(QString::fromStdString(clip.string())).value();
    session.segments = {{Uuid::random(), ms(500), ms(1500), Speed::x2},
                        {Uuid::random(), ms(1000), ms(2000), Speed::x4}};
    store.save(session);
  };
  const std::tuple<std::string, std::function<void(const fs::path&)>, const char*, QString> cases[] = {
      {"touched", touch, "vantrix.persistence", "Session discarded: source size/mtime mismatch (file changed)."},
      {"overlapping", overlap, "vantrix.app", "Restored session violated a domain invariant; starting fresh: overlap"},
  };
  for (const auto& [name, spoil, category, line] : cases) {
    SCOPED_TRACE(name);
    const fs::path clip = copyClip(name + ".mp4");
    editAndClose(clip);
    spoil(clip);
    LogCapture log;
    auto model = makeModel();
    openAndWait(*model, clip);
    EXPECT_EQ(model->timeline(), SpeedTimeline(model->duration()));
    EXPECT_EQ(log.messages(category), QStringList{line});
  }
}

TEST_F(SessionTest, WithoutABookmarkEditsWorkAndNothingIsWritten) {
  AppServices services = realServices();
  services.makeBookmark = [](const QString&) { return std::nullopt; };
  auto model = makeModel(services);
  openAndWait(*model, copyClip());
  model->addSegment(ms(500), ms(1000), Speed::x2);
  model->setTrim(ms(100), ms(2900));
  m_undo.undo();
  m_undo.redo();
  EXPECT_EQ(model->timeline()->segments().size(), 1u);
  EXPECT_EQ(model->timeline()->trimEnd(), ms(2900));
  EXPECT_TRUE(QDir(SessionStore::defaultDirectory()).entryList(QDir::Files).isEmpty());
}

}  // namespace
}  // namespace vantrix
