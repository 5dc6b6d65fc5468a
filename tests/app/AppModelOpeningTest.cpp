#include "AppTestSupport.h"

#include <QSignalSpy>

#include <atomic>
#include <fstream>
#include <map>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace vantrix::testing;
using Kind = AppModel::Phase::Kind;

class OpeningTest : public AppModelTest {};

// Everything about a model that an open must either reset or leave alone.
struct Snapshot {
  AppModel::Phase phase;
  std::optional<SpeedTimeline> timeline;
  std::optional<Uuid> selection;
  std::optional<PendingRegion> pending;
  std::vector<QString> undoTexts;
  int undoIndex;
  friend bool operator==(const Snapshot&, const Snapshot&) = default;
};

Snapshot snapshotOf(const AppModel& model, const QUndoStack& undo) {
  Snapshot s{model.phase(), model.timeline(), model.selectedSegmentId(), model.pendingRegion(), {}, undo.index()};
  for (int i = 0; i < undo.count(); ++i) s.undoTexts.push_back(undo.text(i));
  return s;
}

// Leaves the model with a segment selected, marks set and two undo steps.
void edit(AppModel& model) {
  model.addSegment(ms(500), ms(1000), Speed::x2);
  model.setTrim(ms(100), ms(2900));
  model.select(model.timeline()->segments().front().id);
  model.seek(ms(1500));
  model.markIn();
}

TEST_F(OpeningTest, SuccessResetsSelectionMarksPlayheadAndThisModelsUndo) {
  auto model = makeModel();
  openAndWait(*model, copyFixture(clipSpec(), "a.mp4"));
  edit(*model);
  ASSERT_EQ(m_undo.count(), 2);
  model->requestThumbnails(2, 60, 1);
  ASSERT_EQ(model->thumbnails().size(), 2u);

  const fs::path b = copyFixture(clipSpec(), "b.mov");
  openAndWait(*model, b);
  EXPECT_EQ(model->phase().video->path, b);
  EXPECT_EQ(model->timeline(), SpeedTimeline(model->duration()));
  EXPECT_EQ(model->selectedSegmentId(), std::nullopt);
  EXPECT_EQ(model->pendingRegion(), std::nullopt);
  EXPECT_EQ(model->currentTime(), RationalTime::zero());
  EXPECT_EQ(m_undo.count(), 0);
  EXPECT_TRUE(model->thumbnails().empty());  // A's filmstrip must not pass for B's
  EXPECT_FALSE(model->showsLoadingIndicator());
  EXPECT_EQ(model->activeError(), std::nullopt);
}

// A step some other part of the window put on the shared stack.
struct ForeignCommand final : QUndoCommand {
  explicit ForeignCommand(int* undone) : QUndoCommand(QStringLiteral("Typing")), m_undone(undone) {}
  void undo() override { ++*m_undone; }
  int* m_undone;
};

TEST_F(OpeningTest, OtherOwnersUndoStepsSurviveAndTheOldVideosStepsDoNothing) {
  auto model = makeModel();
  openAndWait(*model, copyFixture(clipSpec(), "a.mp4"));
  int foreignUndone = 0;
  m_undo.push(new ForeignCommand(&foreignUndone));
  model->addSegment(ms(500), ms(1000), Speed::x2);

  openAndWait(*model, copyFixture(clipSpec(), "b.mp4"));
  const auto fresh = model->timeline();
  m_undo.undo();  // the first video's step: dropped without touching the new timeline
  EXPECT_EQ(model->timeline(), fresh);
  EXPECT_EQ(foreignUndone, 0);
  ASSERT_TRUE(m_undo.canUndo());
  EXPECT_EQ(m_undo.undoText(), QStringLiteral("Typing"));
  m_undo.undo();
  EXPECT_EQ(foreignUndone, 1);
  EXPECT_EQ(model->timeline(), fresh);
}

struct FailureCase {
  const char* name;
  const char* file;  // created in the test folder when `create`
  bool create;
  AppError::Kind error;
};
void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class OpenFailureTest : public AppModelTest, public ::testing::WithParamInterface<FailureCase> {};

const FailureCase kFailures[] = {
    {"UnsupportedName", "notes.txt", true, AppError::Kind::unsupportedFile},
    {"MissingFile", "gone.mp4", false, AppError::Kind::fileMoved},
    {"NotAMovie", "fake.mov", true, AppError::Kind::unsupportedFile},
};

fs::path failingFile(const fs::path& dir, const FailureCase& c) {
  const fs::path path = dir / c.file;
  if (c.create) std::ofstream(path) << "not a movie";
  return path;
}

QString openFailedLine(AppError::Kind kind) {
  const AppError error = kind == AppError::Kind::fileMoved ? AppError::fileMoved() : AppError::unsupportedFile();
  return QStringLiteral("Open failed: ") + QString::fromUtf8(error.description().data());
}

// First from the empty window, then with a video open: each failure returns to where it started.
TEST_P(OpenFailureTest, ReturnsToThePreviousStateAndShowsTheError) {
  auto model = makeModel();
  const auto failOpen = [&] {
    LogCapture log;
    model->dismissError();
    model->openVideo(failingFile(dir(), GetParam()));
    EXPECT_EQ(model->phase().kind, Kind::loading);
    ASSERT_TRUE(waitUntil([&] { return model->phase().kind != Kind::loading; }));
    ASSERT_TRUE(model->activeError());
    EXPECT_EQ(model->activeError()->kind(), GetParam().error);
    EXPECT_EQ(log.messages("vantrix.app"), QStringList{openFailedLine(GetParam().error)});
  };
  failOpen();
  EXPECT_EQ(model->phase().kind, Kind::empty);
  EXPECT_EQ(model->timeline(), std::nullopt);

  openAndWait(*model, copyFixture(clipSpec(), "a.mp4"));
  edit(*model);
  m_undo.undo();  // an undone step too: the redo side must survive as well
  const Snapshot before = snapshotOf(*model, m_undo);
  failOpen();
  EXPECT_EQ(snapshotOf(*model, m_undo), before);
  model->addSegment(ms(2000), ms(2500), Speed::x4);  // still a working editor on the old video
  EXPECT_EQ(model->timeline()->segments().size(), before.timeline->segments().size() + 1);
}

INSTANTIATE_TEST_SUITE_P(Files, OpenFailureTest, ::testing::ValuesIn(kFailures),
                         [](const auto& row) { return std::string(row.param.name); });

// Loads of chosen files are held at a gate until the test releases them; the rest load at once.
struct GatedLoads {
  std::map<fs::path, std::shared_ptr<LoadGate>> gates;
  std::map<fs::path, std::shared_ptr<std::atomic<int>>> returned;  // 1: returned, 2: returned after a stop

  void hold(const fs::path& path) {
    gates[path] = std::make_shared<LoadGate>();
    returned[path] = std::make_shared<std::atomic<int>>(0);
  }
  AppServices services() {
    AppServices s = realServices();
    s.loadVideo = [gates = gates, returned = returned, real = s.loadVideo](const fs::path& path, std::stop_token stop) {
      if (auto gate = gates.find(path); gate != gates.end()) gate->second->wait();
      auto result = real(path, {});  // a slow loader that finishes even when asked to stop
      if (auto r = returned.find(path); r != returned.end()) *r->second = stop.stop_requested() ? 2 : 1;
      return result;
    };
    return s;
  }
};

// Counts every change the model announces.
struct ChangeCounter {
  int changes = 0;
  explicit ChangeCounter(AppModel& model) {
    for (auto signal : {&AppModel::phaseChanged, &AppModel::showsLoadingIndicatorChanged, &AppModel::activeErrorChanged,
                        &AppModel::durationChanged, &AppModel::currentTimeChanged, &AppModel::thumbnailsChanged,
                        &AppModel::timelineChanged, &AppModel::selectedSegmentIdChanged,
                        &AppModel::pendingRegionChanged, &AppModel::compositionChanged})
      QObject::connect(&model, signal, &model, [this] { ++changes; });
  }
};

TEST_F(OpeningTest, OpeningBWhileALoadsCancelsAWhichNeverWritesAfterwards) {
  const fs::path a = copyFixture(clipSpec(), "a.mp4");
  const fs::path b = copyFixture(clipSpec(), "b.mp4");
  GatedLoads loads;
  loads.hold(a);
  auto model = makeModel(loads.services());

  model->openVideo(a);
  openAndWait(*model, b);
  EXPECT_EQ(model->phase().video->path, b);

  ChangeCounter counter(*model);
  loads.gates[a]->release();
  ASSERT_TRUE(waitUntil([&] { return *loads.returned[a] != 0; }));
  EXPECT_EQ(*loads.returned[a], 2) << "A's load was not asked to stop";
  runEventsFor(100);
  EXPECT_EQ(counter.changes, 0);
  EXPECT_EQ(model->phase().video->path, b);
}

TEST_F(OpeningTest, AResultAlreadyOnItsWayIsDroppedWhenANewerOpenStarts) {
  const fs::path a = copyFixture(clipSpec(), "a.mp4");
  const fs::path b = copyFixture(clipSpec(), "b.mp4");
  GatedLoads loads;
  loads.hold(a);
  loads.hold(b);
  auto model = makeModel(loads.services());

  model->openVideo(a);
  loads.gates[a]->release();
  ASSERT_TRUE(waitHoldingEvents([&] { return *loads.returned[a] != 0; }));
  model->openVideo(b);  // A's result is queued for the GUI thread by now
  runEventsFor(100);
  EXPECT_EQ(model->phase().kind, Kind::loading);
  loads.gates[b]->release();
  ASSERT_TRUE(waitUntil([&] { return model->phase().isEditing(); }));
  EXPECT_EQ(model->phase().video->path, b);
}

TEST_F(OpeningTest, AFailedOpenThatInterruptedAnotherReturnsToTheVideoOpenBeforeBoth) {
  const fs::path a = copyFixture(clipSpec(), "a.mp4");
  const fs::path b = copyFixture(clipSpec(), "b.mp4");
  GatedLoads loads;
  loads.hold(b);
  auto model = makeModel(loads.services());
  openAndWait(*model, a);
  edit(*model);
  const Snapshot before = snapshotOf(*model, m_undo);

  model->openVideo(b);
  model->openVideo(dir() / "gone.mp4");
  ASSERT_TRUE(waitUntil([&] { return model->phase().kind != Kind::loading; }));
  EXPECT_EQ(snapshotOf(*model, m_undo), before);
  EXPECT_EQ(model->activeError(), AppError::fileMoved());

  loads.gates[b]->release();
  ASSERT_TRUE(waitUntil([&] { return *loads.returned[b] != 0; }));
  runEventsFor(100);
  EXPECT_EQ(snapshotOf(*model, m_undo), before);
}

TEST_F(OpeningTest, AnOpenThatFailsBeforeTheDelayNeverShowsTheSpinner) {
  ManualDelays delays;
  AppServices services = realServices();
  services.startDelay = delays.factory();
  auto model = makeModel(services);
  QSignalSpy spinner(model.get(), &AppModel::showsLoadingIndicatorChanged);

  model->openVideo(dir() / "notes.txt");
  ASSERT_TRUE(waitUntil([&] { return model->phase().kind != Kind::loading; }));
  EXPECT_EQ(delays.fire(), 0);  // the delay passes after the failure
  EXPECT_FALSE(model->showsLoadingIndicator());
  EXPECT_EQ(spinner.count(), 0);
}

TEST_F(OpeningTest, AnOpenThatOutlastsTheDelayShowsTheSpinnerUntilItEnds) {
  const fs::path a = copyFixture(clipSpec(), "a.mp4");
  GatedLoads loads;
  loads.hold(a);
  ManualDelays delays;
  AppServices services = loads.services();
  services.startDelay = delays.factory();
  auto model = makeModel(services);

  model->openVideo(a);
  EXPECT_FALSE(model->showsLoadingIndicator());
  EXPECT_EQ(delays.fire(), 1);
  EXPECT_TRUE(model->showsLoadingIndicator());
  EXPECT_EQ(model->phase().kind, Kind::loading);

  loads.gates[a]->release();
  ASSERT_TRUE(waitUntil([&] { return model->phase().isEditing(); }));
  EXPECT_FALSE(model->showsLoadingIndicator());
}

// The production delay: a real timer, checked only for the slow side (a hold well past it).
TEST_F(OpeningTest, TheRealDelayShowsTheSpinnerForAHeldOpen) {
  const fs::path a = copyFixture(clipSpec(), "a.mp4");
  GatedLoads loads;
  loads.hold(a);
  auto model = makeModel(loads.services());
  model->openVideo(a);
  EXPECT_TRUE(waitUntil([&] { return model->showsLoadingIndicator(); }, 5000));
  loads.gates[a]->release();
  ASSERT_TRUE(waitUntil([&] { return model->phase().isEditing(); }));
  EXPECT_FALSE(model->showsLoadingIndicator());
}

}  // namespace
}  // namespace vantrix
