#include "media/CompositionBuilder.h"
#include "media/CompositionReader.h"
#include "media/LoadedVideo.h"
#include "media/Player.h"

#include "MediaFixture.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <numbers>

namespace vantrix {
namespace {

using namespace std::chrono_literals;
using testing::FixtureSpec;
using Status = Player::TimeControlStatus;

constexpr std::int64_t kRate = 30;

// The editing thread of these tests: the player needs an event loop to deliver its reports.
QCoreApplication& application() {
  static int argc = 1;
  static char name[] = "player_tests";
  static char* argv[] = {name, nullptr};
  static QCoreApplication* app = QCoreApplication::instance() ? nullptr : new QCoreApplication(argc, argv);
  return app ? *app : *QCoreApplication::instance();
}

// Runs the event loop until `done` holds; false after `limit` (generous: sanitizer builds are slow).
template <typename Predicate>
bool waitFor(Predicate done, std::chrono::milliseconds limit = 20s) {
  QElapsedTimer timer;
  timer.start();
  while (!done()) {
    if (timer.elapsed() > limit.count()) return false;
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    QThread::usleep(200);
  }
  return true;
}

struct Shown {
  RationalTime outputTime;
  RationalTime sourceTime;
  std::optional<std::int64_t> barcode;
};

class RecordingVideo final : public VideoOutput {
 public:
  void present(const PlayerFrame& frame) override {
    frames.push_back({frame.outputTime, frame.sourceTime, testing::readBarcode(frame.transform.applied(frame.image))});
  }
  void clear() override { ++clears; }
  std::optional<std::int64_t> lastBarcode() const { return frames.empty() ? std::nullopt : frames.back().barcode; }

  std::vector<Shown> frames;
  int clears = 0;
};

// Hears what the device would: the test pulls the sound due at the clock's current reading.
class RecordingAudio final : public AudioOutput {
 public:
  bool playsSound() const override { return true; }
  void start(std::shared_ptr<AudioFeed> feed) override { *m_feed = std::move(feed); }
  void stop() override {}

  // Shared with the test, which keeps it after handing the output to the player.
  std::shared_ptr<std::shared_ptr<AudioFeed>> m_feed = std::make_shared<std::shared_ptr<AudioFeed>>();
};

// Tone strength at `hz` over samples (Goertzel), normalised to the window length.
double toneLevel(std::span<const float> samples, double hz) {
  const double w = 2 * std::numbers::pi * hz / CompositionReader::kSampleRate;
  double s1 = 0, s2 = 0;
  for (float x : samples) {
    const double s0 = x + 2 * std::cos(w) * s1 - s2;
    s2 = s1;
    s1 = s0;
  }
  return std::sqrt(s1 * s1 + s2 * s2 - 2 * std::cos(w) * s1 * s2) / static_cast<double>(samples.size());
}

// The source second whose tone dominates, -1 for digital silence.
int heardSecond(std::span<const float> samples, int seconds) {
  if (std::ranges::all_of(samples, [](float x) { return x == 0.0f; })) return -1;
  int best = -2;
  double level = 0;
  for (int s = 0; s < seconds; ++s)
    if (const double l = toneLevel(samples, testing::toneForSecond(s)); l > level) {
      level = l;
      best = s;
    }
  return best;
}

// What the screen must show at output time t: the source frame the composition's frame rule
// picks (every source frame at 1x; on the source's frame grid when sped up), by frame number.
std::int64_t expectedFrame(const Composition& composition, RationalTime t) {
  const RationalTime last = composition.duration() - RationalTime(1, 90000);
  if (t > last) t = last;
  const CompositionEdit* edit = composition.videoEditAt(t);
  RationalTime instant = t;
  if (edit->speed) {
    const RationalTime grid(static_cast<std::int64_t>(std::floor(t.seconds() * kRate + 1e-9)), kRate);
    instant = std::max(grid, edit->outputStart);
  }
  const RationalTime source = edit->sourceTimeAt(instant);
  return (source.value() * kRate) / source.timescale();  // floor: times are not negative
}

class PlayerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { application(); }

  // 8 s, 30 fps, stereo: normal 0-1, 2x 1-2, normal 2-2.5, 4x 2.5-3.5, normal 3.5-4, 8x 4-6,
  // normal 6-6.5, 16x 6.5-8 (each sped-up stretch ends on the frame grid).
  void SetUp() override {
    m_spec = FixtureSpec{.seconds = 8, .gopFrames = 15};
    auto asset = MediaAsset::open(testing::fixture(m_spec));
    ASSERT_TRUE(asset);
    m_asset = *asset;
    m_timeline.emplace(m_asset->duration());
    ASSERT_TRUE(m_timeline->addSegment(RationalTime::seconds(1), RationalTime::seconds(2), Speed::x2));
    ASSERT_TRUE(m_timeline->addSegment({5, 2}, {7, 2}, Speed::x4));
    ASSERT_TRUE(m_timeline->addSegment(RationalTime::seconds(4), RationalTime::seconds(6), Speed::x8));
    ASSERT_TRUE(m_timeline->addSegment({13, 2}, RationalTime::seconds(8), Speed::x16));
    m_composition = build(*m_timeline);
  }

  std::shared_ptr<const Composition> build(const SpeedTimeline& timeline) {
    auto built = CompositionBuilder::build(timeline, m_asset);
    EXPECT_TRUE(built);
    return built ? *built : nullptr;
  }

  // A player on a hand-moved clock, recording what it shows and plays, exact in every stretch.
  void makePlayer(std::shared_ptr<const Composition> item, bool catchUp = false) {
    m_clock = std::make_shared<ManualClock>();
    auto audio = std::make_unique<RecordingAudio>();
    m_feed = audio->m_feed;
    m_player = std::make_unique<Player>(std::move(item), Player::Options{m_clock, std::move(audio), 0, catchUp});
    m_player->setVideoOutput(&m_video);
    ASSERT_TRUE(waitFor([&] { return m_player->currentFrame().has_value(); }));
  }

  bool seekAndWait(RationalTime t, int* completions = nullptr, bool* landed = nullptr) {
    bool done = false;
    m_player->seek(t, RationalTime::zero(), RationalTime::zero(), [&, completions, landed](bool finished) {
      done = true;
      if (completions) ++*completions;
      if (landed) *landed = finished;
    });
    return waitFor([&] { return done; });
  }

  // Moves the clock by `step` and lets the player catch up with it.
  void advance(std::chrono::nanoseconds step) {
    m_clock->advance(step);
    const RationalTime now = m_player->currentTime();
    const std::int64_t expected = expectedFrame(*m_player->currentItem(), now);
    EXPECT_TRUE(waitFor([&] { return m_video.lastBarcode() == expected; }))
        << "at output " << now.seconds() << " s showing " << m_video.lastBarcode().value_or(-1) << " not " << expected;
  }

  FixtureSpec m_spec;
  std::shared_ptr<const MediaAsset> m_asset;
  std::optional<SpeedTimeline> m_timeline;
  std::shared_ptr<const Composition> m_composition;
  std::shared_ptr<ManualClock> m_clock;
  std::shared_ptr<std::shared_ptr<AudioFeed>> m_feed;
  RecordingVideo m_video;
  std::unique_ptr<Player> m_player;
};

TEST_F(PlayerTest, ExactSeeksShowTheLastFrameAtOrBeforeTheTarget) {
  makePlayer(m_composition);
  const RationalTime end = m_composition->duration();
  const RationalTime tick(1, 90000);
  std::vector<RationalTime> targets{RationalTime::zero(), {1, 60}, {1, 30}, RationalTime(1, 30) - tick, {29, 30}, end, end - tick,
                                    end + RationalTime::seconds(3), {-1, 2}};
  for (const CompositionEdit& edit : m_composition->videoEdits()) {
    targets.push_back(edit.outputStart);
    targets.push_back(edit.outputEnd() - tick);
    targets.push_back(edit.outputStart + RationalTime(edit.outputDuration.value(), edit.outputDuration.timescale() * 3));
  }
  for (const RationalTime t : targets) {
    int completions = 0;
    bool landed = false;
    ASSERT_TRUE(seekAndWait(t, &completions, &landed)) << t.toString();
    const RationalTime clamped = std::clamp(t, RationalTime::zero(), end);
    EXPECT_TRUE(landed) << t.toString();
    EXPECT_EQ(m_player->currentTime(), clamped) << t.toString();
    EXPECT_EQ(m_video.lastBarcode(), expectedFrame(*m_composition, clamped))
        << "seek to " << t.toString() << " showed source " << m_player->currentFrame()->sourceTime.toString()
        << " from output " << m_player->currentFrame()->outputTime.toString();
    waitFor([] { return false; }, 5ms);
    EXPECT_EQ(completions, 1) << t.toString();
  }
  EXPECT_EQ(m_player->timeControlStatus(), Status::paused);
}

TEST_F(PlayerTest, ASupersededSeekCompletesOnceWithFalse) {
  makePlayer(m_composition);
  std::vector<bool> first, second;
  m_player->seek(RationalTime::seconds(3), {}, {}, [&](bool landed) { first.push_back(landed); });
  m_player->seek({1, 2}, {}, {}, [&](bool landed) { second.push_back(landed); });
  ASSERT_TRUE(waitFor([&] { return !first.empty() && !second.empty(); }));
  waitFor([] { return false; }, 20ms);
  EXPECT_EQ(first, std::vector<bool>{false});
  EXPECT_EQ(second, std::vector<bool>{true});
  EXPECT_EQ(m_video.lastBarcode(), 15);
}

TEST_F(PlayerTest, PlaysEveryStretchWithItsFramesAndItsSound) {
  makePlayer(m_composition);
  std::vector<float> heard;  // stereo, from output sample 0 on
  m_player->play();
  ASSERT_TRUE(waitFor([&] { return m_player->timeControlStatus() == Status::playing; }));
  constexpr int kStepFrames = CompositionReader::kSampleRate / 50;
  const std::int64_t endSample = CompositionReader::audioSampleAt(m_composition->duration());
  while (m_player->timeControlStatus() == Status::playing) {
    // The device takes the next 20 ms once the decoder has them, then the clock moves on.
    const std::int64_t due = CompositionReader::audioSampleAt(m_player->currentTime());
    const std::int64_t want = std::min(due + kStepFrames, endSample);
    waitFor([&] { return (*m_feed)->bufferedEnd().value_or(0) >= want; }, 2s);
    std::vector<float> chunk(kStepFrames * 2);
    (*m_feed)->pull(chunk.data(), kStepFrames, 0ns);
    heard.insert(heard.end(), chunk.begin(), chunk.end());
    advance(20ms);
  }
  EXPECT_EQ(m_player->currentTime(), m_composition->duration());
  EXPECT_EQ(m_video.lastBarcode(), expectedFrame(*m_composition, m_composition->duration()));

  // Sound, 50 ms windows at least 40 ms clear of any change of stretch or source second.
  std::vector<float> mono(heard.size() / 2);
  for (std::size_t i = 0; i < mono.size(); ++i) mono[i] = heard[2 * i] + heard[2 * i + 1];
  int checked = 0;
  for (RationalTime t = {1, 20}; t + RationalTime(1, 10) < m_composition->duration(); t = t + RationalTime(1, 20)) {
    const RationalTime a = t - RationalTime(2, 25), b = t + RationalTime(1, 20) + RationalTime(2, 25);
    const CompositionEdit* edit = m_composition->videoEditAt(t);
    if (edit != m_composition->videoEditAt(a) || edit != m_composition->videoEditAt(b)) continue;
    const int expected = edit->speed ? -1 : static_cast<int>(std::floor(edit->sourceTimeAt(t).seconds()));
    if (!edit->speed && std::floor(edit->sourceTimeAt(b).seconds()) != std::floor(edit->sourceTimeAt(a).seconds())) continue;
    const auto from = static_cast<std::size_t>(CompositionReader::audioSampleAt(t));
    const auto window = std::span<const float>(mono).subspan(from, CompositionReader::kSampleRate / 20);
    EXPECT_EQ(heardSecond(window, 8), expected) << "at output " << t.seconds() << " s";
    ++checked;
  }
  EXPECT_GT(checked, 40);
}

TEST_F(PlayerTest, TheObserverTicksEveryTenthOfASecondOnlyWhilePlaying) {
  makePlayer(m_composition);
  std::vector<RationalTime> ticks;
  m_player->addPeriodicTimeObserver({1, 10}, [&](RationalTime t) { ticks.push_back(t); });
  m_player->play();
  ASSERT_TRUE(waitFor([&] { return m_player->timeControlStatus() == Status::playing; }));
  for (int i = 0; i < 35; ++i) advance(30ms);  // 1.05 s
  ASSERT_EQ(ticks.size(), 10u);
  for (std::size_t k = 0; k < ticks.size(); ++k) {
    const RationalTime boundary(static_cast<std::int64_t>(k) + 1, 10);
    EXPECT_GE(ticks[k], boundary);
    EXPECT_LT(ticks[k], boundary + RationalTime(3, 100));
  }
  m_player->pause();
  const RationalTime pausedAt = m_player->currentTime();
  for (int i = 0; i < 10; ++i) m_clock->advance(50ms);
  waitFor([] { return false; }, 30ms);
  EXPECT_EQ(ticks.size(), 10u);
  EXPECT_EQ(m_player->currentTime(), pausedAt);
  EXPECT_EQ(m_player->timeControlStatus(), Status::paused);
}

// The model's swap after an edit: same source position, new item, seek there, play again if playing.
struct Swap {
  const char* name;
  bool playing;
};

class PlayerSwapTest : public PlayerTest, public ::testing::WithParamInterface<Swap> {};

TEST_P(PlayerSwapTest, ReplacingTheItemKeepsTheSourceFrameAndTheState) {
  makePlayer(m_composition);
  ASSERT_TRUE(seekAndWait({1, 3}));  // inside the first normal stretch
  std::vector<RationalTime> ticks;
  m_player->addPeriodicTimeObserver({1, 10}, [&](RationalTime t) { ticks.push_back(t); });
  if (GetParam().playing) {
    m_player->play();
    ASSERT_TRUE(waitFor([&] { return m_player->timeControlStatus() == Status::playing; }));
    for (int i = 0; i < 5; ++i) advance(20ms);
  }
  const std::int64_t before = *m_video.lastBarcode();

  SpeedTimeline edited = *m_timeline;
  ASSERT_TRUE(edited.addSegment({1, 10}, {3, 10}, Speed::x4));  // before the playhead: output times shift
  auto item = build(edited);
  const bool wasPlaying = m_player->timeControlStatus() != Status::paused;
  const RationalTime source = m_timeline->sourceTimeForOutput(m_player->currentTime().convertedToTimescale(90000));
  const RationalTime target = edited.outputTimeForSource(source);
  const std::size_t shownBefore = m_video.frames.size();
  const std::size_t ticksBefore = ticks.size();
  m_player->replaceCurrentItem(item);
  m_player->seek(target, {}, {}, [&](bool landed) {
    if (landed && wasPlaying) m_player->play();
  });
  ASSERT_TRUE(waitFor([&] { return m_video.frames.size() > shownBefore; }));
  EXPECT_EQ(m_video.frames[shownBefore].barcode, before);
  EXPECT_EQ(ticks.size(), ticksBefore);
  const Status expected = GetParam().playing ? Status::playing : Status::paused;
  ASSERT_TRUE(waitFor([&] { return m_player->timeControlStatus() == expected; }));
  for (int i = 0; i < 10; ++i) advance(20ms);
  // Everything after the swap belongs to the new item: its output times, its frame rule.
  for (std::size_t i = shownBefore; i < m_video.frames.size(); ++i) {
    EXPECT_GE(m_video.frames[i].outputTime, target - RationalTime(1, 30));
    EXPECT_EQ(m_video.frames[i].barcode, expectedFrame(*item, m_video.frames[i].outputTime));
  }
  for (std::size_t i = ticksBefore; i < ticks.size(); ++i) EXPECT_GT(ticks[i], target);
  EXPECT_EQ(ticks.size() > ticksBefore, GetParam().playing);
}

INSTANTIATE_TEST_SUITE_P(States, PlayerSwapTest, ::testing::Values(Swap{"playing", true}, Swap{"paused", false}),
                         [](const auto& p) { return std::string(p.param.name); });

TEST_F(PlayerTest, FallingBehindInASpedUpStretchSamplesKeyframesThenResumesExactly) {
  SpeedTimeline timeline(m_asset->duration());
  ASSERT_TRUE(timeline.addSegment(RationalTime::seconds(1), RationalTime::seconds(7), Speed::x4));
  const auto item = build(timeline);
  const CompositionEdit fast = item->videoEdits()[1];  // output 1 s to 2.5 s
  makePlayer(item, true);
  ASSERT_TRUE(seekAndWait(fast.outputStart));
  m_player->play();
  ASSERT_TRUE(waitFor([&] { return m_player->timeControlStatus() == Status::playing; }));
  // The clock leaps past every queued picture: the decoder is behind at once.
  m_clock->advance(500ms);
  while (m_player->currentTime() < fast.outputEnd()) {
    m_clock->advance(20ms);
    waitFor([] { return false; }, 2ms);
  }
  ASSERT_TRUE(waitFor([&] { return m_player->currentFrame()->outputTime >= fast.outputEnd(); }));
  for (int i = 0; i < 10; ++i) advance(20ms);
  EXPECT_GT(m_player->statistics().catchUpFrames, 0);
  for (const Shown& shown : m_video.frames) {
    const std::int64_t exact = expectedFrame(*item, shown.outputTime);
    if (shown.outputTime > fast.outputStart && shown.outputTime < fast.outputEnd()) {
      EXPECT_LE(shown.barcode, exact) << "a sampled picture never runs ahead of the exact one";
    } else {
      EXPECT_EQ(shown.barcode, exact) << "at output " << shown.outputTime.seconds();
    }
  }
}

TEST_F(PlayerTest, WithoutASoundDeviceItPlaysOnTheWallClock) {
  Player player(m_composition);  // default clock and sound output
  RecordingVideo video;
  player.setVideoOutput(&video);
  player.play();
  ASSERT_TRUE(waitFor([&] { return player.timeControlStatus() == Status::playing; }));
  QElapsedTimer wall;
  wall.start();
  const RationalTime start = player.currentTime();
  waitFor([] { return false; }, 400ms);
  const double advanced = (player.currentTime() - start).seconds();
  const double elapsed = static_cast<double>(wall.elapsed()) / 1000;
  player.pause();
  EXPECT_FALSE(player.error().has_value());
  EXPECT_NEAR(advanced, elapsed, 0.05);
  EXPECT_GT(video.frames.size(), 5u);
  ASSERT_TRUE(waitFor([&] { return video.lastBarcode() == expectedFrame(*m_composition, player.currentTime()); }, 2s));
}

TEST_F(PlayerTest, ALoadedVideoPlaysItsSourceUnedited) {
  auto video = LoadedVideo::load(testing::fixture(m_spec));
  ASSERT_TRUE(video);
  EXPECT_EQ(video->player, nullptr);
  ASSERT_TRUE(video->attachPlayer({std::make_shared<ManualClock>(), std::make_unique<NullAudioOutput>()}));
  Player& player = *video->player;
  RecordingVideo shown;
  player.setVideoOutput(&shown);
  EXPECT_EQ(player.currentItem()->duration(), m_asset->duration());
  bool landed = false;
  player.seek({151, 30}, {}, {}, [&](bool) { landed = true; });
  ASSERT_TRUE(waitFor([&] { return landed; }));
  EXPECT_EQ(shown.lastBarcode(), 151);
  EXPECT_EQ(player.timeControlStatus(), Status::paused);
}

}  // namespace
}  // namespace vantrix
