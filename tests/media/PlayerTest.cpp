#include "media/CompositionBuilder.h"
#include "media/CompositionReader.h"
#include "media/Player.h"

#include "MediaTestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <numbers>
#include <utility>

namespace vantrix {
namespace {

using namespace std::chrono_literals;
using namespace testing;
using Status = Player::TimeControlStatus;

void settle(std::chrono::milliseconds time) {
  waitFor([] { return false; }, time);
}

struct Shown {
  RationalTime outputTime;
  std::optional<std::int64_t> barcode;
};

class RecordingVideo final : public VideoOutput {
 public:
  void present(const PlayerFrame& frame) override {
    frames.push_back({frame.outputTime, readBarcode(frame.transform.applied(frame.image))});
  }
  void clear() override {}
  std::optional<std::int64_t> lastBarcode() const { return frames.empty() ? std::nullopt : frames.back().barcode; }

  std::vector<Shown> frames;
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

// The source second whose tone is strongest (Goertzel at each second's pitch), -1 for digital
// silence.
int heardSecond(std::span<const float> samples) {
  if (std::ranges::all_of(samples, [](float x) { return x == 0.0f; })) return -1;
  int best = -2;
  double bestPower = 0;
  for (int second = 0; second < 8; ++second) {
    const double c = 2 * std::cos(2 * std::numbers::pi * toneForSecond(second) / CompositionReader::kSampleRate);
    double s1 = 0, s2 = 0;
    for (float x : samples) s2 = std::exchange(s1, x + c * s1 - s2);
    if (const double power = s1 * s1 + s2 * s2 - c * s1 * s2; power > bestPower) {
      bestPower = power;
      best = second;
    }
  }
  return best;
}

class PlayerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ensureCoreApplication(); }

  // 8 s, 30 fps, stereo, every speed with normal stretches between (each sped-up stretch ends on
  // the frame grid).
  void SetUp() override {
    m_asset = openAsset(fixture({.seconds = 8, .gopFrames = 15}));
    ASSERT_TRUE(m_asset);
    m_timeline.emplace(timelineFor(
        *m_asset, std::nullopt,
        {{1000, 2000, Speed::x2}, {2500, 3500, Speed::x4}, {4000, 6000, Speed::x8}, {6500, 8000, Speed::x16}}));
    m_composition = compose(*m_timeline, m_asset);
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

  bool play() {
    m_player->play();
    return waitFor([&] { return m_player->timeControlStatus() == Status::playing; });
  }

  bool seekAndWait(RationalTime t) {
    bool done = false;
    m_player->seek(t, {}, {}, [&](bool) { done = true; });
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

  std::shared_ptr<const MediaAsset> m_asset;
  std::optional<SpeedTimeline> m_timeline;
  std::shared_ptr<const Composition> m_composition;
  std::shared_ptr<ManualClock> m_clock;
  std::shared_ptr<std::shared_ptr<AudioFeed>> m_feed;
  RecordingVideo m_video;
  std::unique_ptr<Player> m_player;
};

// Each seek lands exactly and completes once; one overtaken by the next completes with false.
TEST_F(PlayerTest, ExactSeeksShowTheLastFrameAtOrBeforeTheTarget) {
  makePlayer(m_composition);
  const RationalTime end = m_composition->duration();
  const RationalTime tick(1, 90000);
  std::vector<RationalTime> targets{RationalTime::zero(),           {1, 60}, RationalTime(1, 30) - tick, {29, 30}, end,
                                    end + RationalTime::seconds(3), {-1, 2}};
  for (const CompositionEdit& edit : m_composition->videoEdits()) {
    targets.insert(targets.end(),
                   {edit.outputStart, edit.outputEnd() - tick,
                    edit.outputStart + RationalTime(edit.outputDuration.value(), edit.outputDuration.timescale() * 3)});
  }
  for (const RationalTime t : targets) {
    std::vector<bool> completions;
    m_player->seek(t, {}, {}, [&](bool landed) { completions.push_back(landed); });
    ASSERT_TRUE(waitFor([&] { return !completions.empty(); })) << t.toString();
    const RationalTime clamped = std::clamp(t, RationalTime::zero(), end);
    EXPECT_EQ(m_player->currentTime(), clamped) << t.toString();
    EXPECT_EQ(m_video.lastBarcode(), expectedFrame(*m_composition, clamped)) << "seek to " << t.toString();
    settle(5ms);
    EXPECT_EQ(completions, std::vector{true}) << t.toString();
  }
  EXPECT_EQ(m_player->timeControlStatus(), Status::paused);

  std::vector<bool> first, second;
  m_player->seek(RationalTime::seconds(3), {}, {}, [&](bool landed) { first.push_back(landed); });
  m_player->seek({1, 2}, {}, {}, [&](bool landed) { second.push_back(landed); });
  ASSERT_TRUE(waitFor([&] { return !first.empty() && !second.empty(); }));
  settle(20ms);
  EXPECT_EQ(first, std::vector{false});
  EXPECT_EQ(second, std::vector{true});
  EXPECT_EQ(m_video.lastBarcode(), 15);
}

TEST_F(PlayerTest, PlaysEveryStretchWithItsFramesAndItsSound) {
  makePlayer(m_composition);
  std::vector<float> heard;  // stereo, from output sample 0 on
  ASSERT_TRUE(play());
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
    if (!edit->speed && std::floor(edit->sourceTimeAt(b).seconds()) != std::floor(edit->sourceTimeAt(a).seconds()))
      continue;
    const auto from = static_cast<std::size_t>(CompositionReader::audioSampleAt(t));
    const auto window = std::span<const float>(mono).subspan(from, CompositionReader::kSampleRate / 20);
    EXPECT_EQ(heardSecond(window), expected) << "at output " << t.seconds() << " s";
    ++checked;
  }
  EXPECT_GT(checked, 40);
}

TEST_F(PlayerTest, TheObserverTicksEveryTenthOfASecondOnlyWhilePlaying) {
  makePlayer(m_composition);
  std::vector<RationalTime> ticks;
  m_player->addPeriodicTimeObserver({1, 10}, [&](RationalTime t) { ticks.push_back(t); });
  ASSERT_TRUE(play());
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
  settle(30ms);
  EXPECT_EQ(ticks.size(), 10u);
  EXPECT_EQ(m_player->currentTime(), pausedAt);
  EXPECT_EQ(m_player->timeControlStatus(), Status::paused);
}

// The model's swap after an edit: same source position, new item, seek there, play again if playing.
class PlayerSwapTest : public PlayerTest, public ::testing::WithParamInterface<bool> {};

TEST_P(PlayerSwapTest, ReplacingTheItemKeepsTheSourceFrameAndTheState) {
  makePlayer(m_composition);
  ASSERT_TRUE(seekAndWait({1, 3}));  // inside the first normal stretch
  std::vector<RationalTime> ticks;
  m_player->addPeriodicTimeObserver({1, 10}, [&](RationalTime t) { ticks.push_back(t); });
  if (GetParam()) {
    ASSERT_TRUE(play());
    for (int i = 0; i < 5; ++i) advance(20ms);
  }
  const std::int64_t before = *m_video.lastBarcode();

  SpeedTimeline edited = *m_timeline;
  ASSERT_TRUE(edited.addSegment({1, 10}, {3, 10}, Speed::x4));  // before the playhead: output times shift
  auto item = compose(edited, m_asset);
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
  const Status expected = GetParam() ? Status::playing : Status::paused;
  ASSERT_TRUE(waitFor([&] { return m_player->timeControlStatus() == expected; }));
  for (int i = 0; i < 10; ++i) advance(20ms);
  // Everything after the swap belongs to the new item: its output times, its frame rule.
  for (std::size_t i = shownBefore; i < m_video.frames.size(); ++i) {
    EXPECT_GE(m_video.frames[i].outputTime, target - RationalTime(1, 30));
    EXPECT_EQ(m_video.frames[i].barcode, expectedFrame(*item, m_video.frames[i].outputTime));
  }
  for (std::size_t i = ticksBefore; i < ticks.size(); ++i) EXPECT_GT(ticks[i], target);
  EXPECT_EQ(ticks.size() > ticksBefore, GetParam());
}

INSTANTIATE_TEST_SUITE_P(States, PlayerSwapTest, ::testing::Bool(),
                         [](const auto& p) { return p.param ? "playing" : "paused"; });

TEST_F(PlayerTest, FallingBehindInASpedUpStretchSamplesKeyframesThenResumesExactly) {
  const auto item = compose(timelineFor(*m_asset, std::nullopt, {{1000, 7000, Speed::x4}}), m_asset);
  const CompositionEdit fast = item->videoEdits()[1];  // output 1 s to 2.5 s
  makePlayer(item, true);
  ASSERT_TRUE(seekAndWait(fast.outputStart));
  ASSERT_TRUE(play());
  // The clock leaps past every queued picture: the decoder is behind at once.
  m_clock->advance(500ms);
  while (m_player->currentTime() < fast.outputEnd()) {
    m_clock->advance(20ms);
    settle(2ms);
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
  settle(400ms);
  const double advanced = (player.currentTime() - start).seconds();
  const double elapsed = static_cast<double>(wall.elapsed()) / 1000;
  player.pause();
  EXPECT_FALSE(player.error().has_value());
  EXPECT_NEAR(advanced, elapsed, 0.05);
  EXPECT_GT(video.frames.size(), 5u);
  ASSERT_TRUE(waitFor([&] { return video.lastBarcode() == expectedFrame(*m_composition, player.currentTime()); }, 2s));
}

}  // namespace
}  // namespace vantrix
