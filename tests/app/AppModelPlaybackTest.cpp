#include "AppTestSupport.h"

#include <QSignalSpy>

#include <atomic>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace vantrix::testing;
using Status = Player::TimeControlStatus;

// Builds of the composition that wait for the test once it arms the gate.
struct BuildGate {
  LoadGate gate;
  std::atomic<bool> armed{false};
  std::atomic<int> calls{0};
  std::atomic<int> returned{0};
};

class PlaybackTest : public AppModelTest {
 protected:
  // The real player on a clock that moves only when the test moves it.
  AppServices steeredServices() {
    AppServices services = realServices();
    services.playerOptions = [clock = m_clock] {
      Player::Options options;
      options.clock = clock;
      options.audio = std::make_unique<NullAudioOutput>();
      return options;
    };
    services.buildComposition = [gate = m_builds, real = services.buildComposition](const SpeedTimeline& t,
                                                                                    const auto& asset) {
      ++gate->calls;
      if (gate->armed) gate->gate.wait();
      auto built = real(t, asset);
      ++gate->returned;
      return built;
    };
    return services;
  }

  void openClip(AppModel& model) { openAndWait(model, copyFixture(clipSpec(), "clip.mp4")); }

  // Waits until the player has settled on a picture and is in `status`.
  static bool settled(const Player& player, Status status) {
    return waitUntil([&] { return player.currentFrame() && player.timeControlStatus() == status; });
  }
  static std::optional<std::int64_t> barcodeOnScreen(const Player& player) {
    return player.currentFrame() ? readBarcode(player.currentFrame()->image) : std::nullopt;
  }

  std::shared_ptr<ManualClock> m_clock = std::make_shared<ManualClock>();
  std::shared_ptr<BuildGate> m_builds = std::make_shared<BuildGate>();
};

struct SeekCase {
  std::int64_t requestMs;
  std::optional<std::int64_t> expectedMs;  // none: the video's duration
};

// With [0.5, 1.0) at x2 installed, output time runs 0.25 s behind source time after the segment.
TEST_F(PlaybackTest, SeekClampsToTheVideoAndMapsThroughTheInstalledComposition) {
  auto model = makeModel();
  openClip(*model);
  model->addSegment(ms(500), ms(1000), Speed::x2);
  ASSERT_TRUE(waitUntil([&] { return model->compositionTimeline() == model->timeline(); }));

  const SeekCase cases[] = {{-500, 0}, {0, 0}, {750, 750}, {2000, 2000}, {10000, std::nullopt}};
  for (const SeekCase& c : cases) {
    SCOPED_TRACE(c.requestMs);
    model->seek(ms(c.requestMs));
    const RationalTime expected = c.expectedMs ? ms(*c.expectedMs) : model->duration();
    EXPECT_EQ(model->currentTime(), expected);
    EXPECT_EQ(model->player()->currentTime(), model->compositionTimeline()->outputTimeForSource(expected));
  }
}

TEST_F(PlaybackTest, BeforeTheFirstCompositionSeeksUseSourceTime) {
  auto model = makeModel(steeredServices());
  m_builds->armed = true;
  model->openVideo(copyFixture(clipSpec(), "clip.mp4"));
  ASSERT_TRUE(waitUntil([&] { return model->phase().isEditing(); }));
  ASSERT_EQ(model->composition(), nullptr);
  model->seek(ms(1200));
  EXPECT_EQ(model->player()->currentTime(), ms(1200));
  m_builds->gate.release();
}

TEST_F(PlaybackTest, CurrentTimeIsSourceTimeWhileTheOldCompositionStillPlays) {
  auto model = makeModel(steeredServices());
  openClip(*model);
  Player& player = *model->player();
  model->seek(ms(1200));
  model->togglePlayPause();
  ASSERT_TRUE(settled(player, Status::playing));

  m_builds->armed = true;  // the edit's composition is not ready yet
  model->addSegment(ms(0), ms(1000), Speed::x4);
  m_clock->advance(std::chrono::milliseconds(100));
  ASSERT_TRUE(waitUntil([&] { return model->currentTime() != ms(1200); }));
  // Through the new timeline the same player time would read as 2.05 s.
  EXPECT_EQ(model->currentTime(), ms(1300));
  EXPECT_EQ(model->currentTime().timescale(), RationalTime::kStandardTimescale);

  m_builds->gate.release();
  ASSERT_TRUE(waitUntil([&] { return model->compositionTimeline() == model->timeline(); }));
  ASSERT_TRUE(settled(player, Status::playing));
  EXPECT_EQ(player.currentTime(), ms(550));  // source 1.3 s in the new composition
  m_clock->advance(std::chrono::milliseconds(100));
  ASSERT_TRUE(waitUntil([&] { return model->currentTime() != ms(1300); }));
  EXPECT_EQ(model->currentTime(), ms(1400));
}

struct EditWhilePlayingCase {
  const char* name;
  bool playing;
  std::function<void(AppModel&)> edit;
};
void PrintTo(const EditWhilePlayingCase& c, std::ostream* os) { *os << c.name; }

class EditWhilePlayingTest : public PlaybackTest, public ::testing::WithParamInterface<EditWhilePlayingCase> {};

TEST_P(EditWhilePlayingTest, TheSameSourceFrameStaysOnScreenAndPlaybackGoesOn) {
  auto model = makeModel(steeredServices());
  openClip(*model);
  Player& player = *model->player();
  const Status status = GetParam().playing ? Status::playing : Status::paused;
  model->seek(ms(1500));
  if (GetParam().playing) model->togglePlayPause();
  ASSERT_TRUE(settled(player, status));
  const auto before = barcodeOnScreen(player);
  ASSERT_EQ(before, 45);

  QSignalSpy installs(model.get(), &AppModel::compositionChanged);
  GetParam().edit(*model);
  ASSERT_TRUE(waitUntil([&] { return installs.count() > 0; }));
  EXPECT_EQ(model->compositionTimeline(), model->timeline());
  ASSERT_TRUE(settled(player, status));
  EXPECT_EQ(barcodeOnScreen(player), before);
  EXPECT_EQ(model->currentTime(), ms(1500));

  m_clock->advance(std::chrono::milliseconds(100));
  if (GetParam().playing) {
    EXPECT_TRUE(waitUntil([&] { return barcodeOnScreen(player) == 48; })) << barcodeOnScreen(player).value_or(-1);
  } else {
    runEventsFor(50);
    EXPECT_EQ(barcodeOnScreen(player), before);
  }
}

const EditWhilePlayingCase kEditsWhilePlaying[] = {
    {"SegmentBeforeThePlayhead", true, [](AppModel& m) { m.addSegment(ms(200), ms(800), Speed::x4); }},
    {"SegmentAfterThePlayhead", true, [](AppModel& m) { m.addSegment(ms(2000), ms(2800), Speed::x16); }},
    {"TrimOfTheStart", true, [](AppModel& m) { m.setTrim(ms(1000), m.duration()); }},
    {"UndoOfASegment", true,
     [](AppModel& m) {
       m.addSegment(ms(200), ms(800), Speed::x8);
       m.undoStack()->undo();
     }},
    {"PausedStaysPaused", false, [](AppModel& m) { m.addSegment(ms(200), ms(800), Speed::x4); }},
};

INSTANTIATE_TEST_SUITE_P(Playback, EditWhilePlayingTest, ::testing::ValuesIn(kEditsWhilePlaying),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(PlaybackTest, ABuildThatFinishedIsDroppedWhenAnEditFollowsBeforeItIsInstalled) {
  auto model = makeModel(steeredServices());
  openClip(*model);
  QSignalSpy installs(model.get(), &AppModel::compositionChanged);
  const int returnedBefore = m_builds->returned;
  model->addSegment(ms(200), ms(400), Speed::x2);
  ASSERT_TRUE(waitHoldingEvents([&] { return m_builds->returned == returnedBefore + 1; }));
  model->addSegment(ms(600), ms(800), Speed::x4);
  ASSERT_TRUE(waitUntil([&] { return installs.count() > 0; }));
  runEventsFor(100);
  EXPECT_EQ(installs.count(), 1);
  EXPECT_EQ(model->compositionTimeline(), model->timeline());
}

TEST_F(PlaybackTest, AFailedRebuildKeepsTheOldCompositionAndOnlyLogs) {
  AppServices services = realServices();
  std::atomic<bool> fail = false;
  services.buildComposition = [&fail, real = services.buildComposition](
                                  const SpeedTimeline& t,
                                  const auto& asset) -> std::expected<std::shared_ptr<const Composition>, AppError> {
    if (fail) return std::unexpected(AppError::compositionFailed());
    return real(t, asset);
  };
  auto model = makeModel(services);
  openClip(*model);
  const auto installed = model->composition();
  fail = true;
  LogCapture log;
  model->addSegment(ms(200), ms(400), Speed::x2);
  ASSERT_TRUE(waitUntil([&] { return !log.messages("vantrix.app").isEmpty(); }));
  EXPECT_EQ(log.messages("vantrix.app"),
            QStringList{"Composition rebuild failed: Vantrix couldn't prepare this video. Try opening it again."});
  EXPECT_EQ(model->composition(), installed);
  EXPECT_EQ(model->activeError(), std::nullopt);
}

// The frame a thumbnail of the 3 s clip shows for sample i of n (30 frames a second).
std::int64_t sampledFrame(int i, int n) { return 90 * i / n; }

TEST_F(PlaybackTest, TheFilmstripFillsBySlotAndANewCountReplacesItWhole) {
  // The first request's stills keep coming after it was superseded, as from a slow decoder.
  AppServices services = realServices();
  auto firstRun = std::make_shared<LoadGate>();
  auto firstDone = std::make_shared<std::atomic<bool>>(false);
  services.generateThumbnails = [=, real = services.generateThumbnails](const auto& asset, auto times, double height,
                                                                        double scale, std::stop_token stop,
                                                                        const auto& sink) {
    if (times.size() != 8) return real(asset, times, height, scale, stop, sink);
    firstRun->wait();
    real(asset, times, height, scale, {}, sink);
    *firstDone = true;
  };
  auto model = makeModel(services);
  openClip(*model);
  const auto filled = [&] {
    return !model->thumbnails().empty() &&
           std::ranges::none_of(model->thumbnails(), [](const QImage& image) { return image.isNull(); });
  };
  model->requestThumbnails(8, 120, 1);
  model->requestThumbnails(3, 120, 1);  // supersedes the first request before it delivers
  ASSERT_TRUE(waitUntil(filled));
  firstRun->release();
  ASSERT_TRUE(waitUntil([&] { return firstDone->load(); }));
  runEventsFor(100);
  ASSERT_EQ(model->thumbnails().size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(readBarcode(model->thumbnails()[i]), sampledFrame(i, 3)) << i;

  QSignalSpy changes(model.get(), &AppModel::thumbnailsChanged);
  model->requestThumbnails(3, 120, 1);
  runEventsFor(100);
  EXPECT_EQ(changes.count(), 0);

  model->requestThumbnails(0, 120, 1);
  EXPECT_TRUE(model->thumbnails().empty());
}

}  // namespace
}  // namespace vantrix
