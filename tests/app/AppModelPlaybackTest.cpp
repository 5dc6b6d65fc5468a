#include "AppTestSupport.h"

#include <QSignalSpy>

#include <atomic>

namespace vantrix {
namespace {

using namespace vantrix::testing;
using Status = Player::TimeControlStatus;

class PlaybackTest : public AppModelTest {
 protected:
  // The real player on a clock that moves only when the test moves it. While `m_holdBuilds` is set,
  // composition builds wait at `m_builds`; a build fails while `m_failBuilds` is set.
  AppServices steeredServices() {
    AppServices services = realServices();
    services.playerOptions = [clock = m_clock] {
      Player::Options options;
      options.clock = clock;
      options.audio = std::make_unique<NullAudioOutput>();
      return options;
    };
    services.buildComposition = [this, real = services.buildComposition](
                                    const SpeedTimeline& t,
                                    const auto& asset) -> std::expected<std::shared_ptr<const Composition>, AppError> {
      if (m_holdBuilds) m_builds.wait();
      auto built = m_failBuilds ? std::unexpected(AppError::compositionFailed()) : real(t, asset);
      ++m_buildsReturned;
      return built;
    };
    return services;
  }
  std::unique_ptr<AppModel> openClip() {
    auto model = makeModel(steeredServices());
    openAndWait(*model, copyClip());
    return model;
  }
  // Waits until the player shows a picture and is in `status`.
  static bool settled(const Player& player, Status status) {
    return waitUntil([&] { return player.currentFrame() && player.timeControlStatus() == status; });
  }
  static std::optional<std::int64_t> frameOnScreen(const Player& player) {
    return player.currentFrame() ? readBarcode(player.currentFrame()->image) : std::nullopt;
  }

  std::shared_ptr<ManualClock> m_clock = std::make_shared<ManualClock>();
  LoadGate m_builds;
  std::atomic<bool> m_holdBuilds = false, m_failBuilds = false;
  std::atomic<int> m_buildsReturned = 0;
};

// With [0.5, 1.0) at x2 installed, output time runs 0.25 s behind source time after the segment.
TEST_F(PlaybackTest, SeekClampsToTheVideoAndMapsThroughTheInstalledComposition) {
  auto model = openClip();
  model->addSegment(ms(500), ms(1000), Speed::x2);
  ASSERT_TRUE(waitUntil([&] { return model->compositionTimeline() == model->timeline(); }));
  const std::pair<std::int64_t, RationalTime> cases[] = {
      {-500, ms(0)}, {750, ms(750)}, {2000, ms(2000)}, {10000, model->duration()}};
  for (const auto& [request, expected] : cases) {
    model->seek(ms(request));
    EXPECT_EQ(model->currentTime(), expected) << request;
    EXPECT_EQ(model->player()->currentTime(), model->compositionTimeline()->outputTimeForSource(expected)) << request;
  }
}

TEST_F(PlaybackTest, CurrentTimeIsSourceTimeWhileTheOldCompositionStillPlays) {
  auto model = openClip();
  Player& player = *model->player();
  model->seek(ms(1200));
  model->togglePlayPause();
  ASSERT_TRUE(settled(player, Status::playing));

  m_holdBuilds = true;  // the edit's composition is not ready yet
  model->addSegment(ms(0), ms(1000), Speed::x4);
  m_clock->advance(std::chrono::milliseconds(100));
  ASSERT_TRUE(waitUntil([&] { return model->currentTime() != ms(1200); }));
  EXPECT_EQ(model->currentTime(), ms(1300));  // through the new timeline it would read 2.05 s
  EXPECT_EQ(model->currentTime().timescale(), RationalTime::kStandardTimescale);

  m_builds.release();
  ASSERT_TRUE(waitUntil([&] { return model->compositionTimeline() == model->timeline(); }));
  ASSERT_TRUE(settled(player, Status::playing));
  EXPECT_EQ(player.currentTime(), ms(550));  // source 1.3 s in the new composition
  m_clock->advance(std::chrono::milliseconds(100));
  ASSERT_TRUE(waitUntil([&] { return model->currentTime() != ms(1300); }));
  EXPECT_EQ(model->currentTime(), ms(1400));
}

// The rebuilt preview takes over at the same source frame, 1.5 s (frame 45), and plays on.
TEST_F(PlaybackTest, AfterAnEditTheSameSourceFrameShowsAndPlaybackGoesOn) {
  const std::tuple<const char*, bool, std::function<void(AppModel&)>> cases[] = {
      {"a segment before the playhead", true, [](AppModel& m) { m.addSegment(ms(200), ms(800), Speed::x4); }},
      {"a trim of the start", true, [](AppModel& m) { m.setTrim(ms(1000), m.duration()); }},
      {"paused stays paused", false, [](AppModel& m) { m.addSegment(ms(200), ms(800), Speed::x4); }},
  };
  for (const auto& [what, playing, edit] : cases) {
    SCOPED_TRACE(what);
    auto model = openClip();
    Player& player = *model->player();
    const Status status = playing ? Status::playing : Status::paused;
    model->seek(ms(1500));
    if (playing) model->togglePlayPause();
    ASSERT_TRUE(settled(player, status));
    ASSERT_EQ(frameOnScreen(player), 45);

    QSignalSpy installs(model.get(), &AppModel::compositionChanged);
    edit(*model);
    ASSERT_TRUE(waitUntil([&] { return installs.count() > 0; }));
    EXPECT_EQ(model->compositionTimeline(), model->timeline());
    ASSERT_TRUE(settled(player, status));
    EXPECT_EQ(frameOnScreen(player), 45);
    EXPECT_EQ(model->currentTime(), ms(1500));

    m_clock->advance(std::chrono::milliseconds(100));
    if (playing) {
      EXPECT_TRUE(waitUntil([&] { return frameOnScreen(player) == 48; })) << frameOnScreen(player).value_or(-1);
    } else {
      runEventsFor(50);
      EXPECT_EQ(frameOnScreen(player), 45);
    }
  }
}

// A failed build is only logged; a finished build an edit has overtaken is never installed.
TEST_F(PlaybackTest, OnlyTheLatestSuccessfulBuildIsInstalled) {
  auto model = openClip();
  const auto installed = model->composition();
  QSignalSpy installs(model.get(), &AppModel::compositionChanged);
  m_failBuilds = true;
  LogCapture log;
  model->addSegment(ms(200), ms(400), Speed::x2);
  ASSERT_TRUE(waitUntil([&] { return !log.messages("vantrix.app").isEmpty(); }));
  EXPECT_EQ(log.messages("vantrix.app"),
            QStringList{"Composition rebuild failed: Vantrix couldn't prepare this video. Try opening it again."});
  EXPECT_EQ(model->composition(), installed);
  EXPECT_EQ(model->activeError(), std::nullopt);

  m_failBuilds = false;
  const int returned = m_buildsReturned;
  model->addSegment(ms(600), ms(800), Speed::x4);
  ASSERT_TRUE(waitHoldingEvents([&] { return m_buildsReturned == returned + 1; }));
  model->addSegment(ms(1200), ms(1400), Speed::x8);
  ASSERT_TRUE(waitUntil([&] { return installs.count() > 0; }));
  runEventsFor(100);
  EXPECT_EQ(installs.count(), 1);
  EXPECT_EQ(model->compositionTimeline(), model->timeline());
}

// Slot i of n shows frame 90 * i / n of the 3 s clip. A superseded request's stills keep coming
// after it, as from a slow decoder, and must not land.
TEST_F(PlaybackTest, TheFilmstripFillsBySlotAndANewCountReplacesItWhole) {
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
  openAndWait(*model, copyClip());
  model->requestThumbnails(8, 120, 1);
  model->requestThumbnails(3, 120, 1);
  ASSERT_TRUE(waitUntil([&] { return std::ranges::none_of(model->thumbnails(), &QImage::isNull); }));
  firstRun->release();
  ASSERT_TRUE(waitUntil([&] { return firstDone->load(); }));
  runEventsFor(100);
  ASSERT_EQ(model->thumbnails().size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(readBarcode(model->thumbnails()[i]), 90 * i / 3) << i;

  QSignalSpy changes(model.get(), &AppModel::thumbnailsChanged);
  model->requestThumbnails(3, 120, 1);  // already filled: nothing to do
  runEventsFor(100);
  EXPECT_EQ(changes.count(), 0);
  model->requestThumbnails(0, 120, 1);
  EXPECT_TRUE(model->thumbnails().empty());
}

}  // namespace
}  // namespace vantrix
