// The player with recording outputs: exact seeks, every stretch's frames, sound and ticks, swaps,
// no sound device; and the sound ring it plays through.

#include "media/AudioRing.h"
#include "media/CompositionReader.h"
#include "media/Player.h"

#include "MediaTestSupport.h"

#include <cmath>
#include <numbers>
#include <numeric>
#include <utility>

namespace vantrix {
namespace {

using namespace std::chrono_literals;
using namespace testing;
using Status = Player::TimeControlStatus;

const auto settle = [](std::chrono::milliseconds time) { waitFor([] { return false; }, time); };

// The frame number the reader's frame rule shows at output time t for a 30 fps fixture: every
// source frame at normal speed, the source's frame grid when sped up; the last frame from the end.
std::int64_t expectedFrame(const Composition& composition, RationalTime t) {
  constexpr std::int64_t kRate = 30;
  t = std::min(t, composition.duration() - RationalTime(1, 90000));
  const CompositionEdit* edit = composition.videoEditAt(t);
  RationalTime instant = t;
  if (edit->speed) {
    const RationalTime grid(static_cast<std::int64_t>(std::floor(t.seconds() * kRate + 1e-9)), kRate);
    instant = std::max(grid, edit->outputStart);
  }
  const RationalTime source = edit->sourceTimeAt(instant);
  return source.value() * kRate / source.timescale();  // floor: times are not negative
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

// Hears what the device would: the test, which keeps the feed, pulls the sound due at the clock's
// current reading.
class RecordingAudio final : public AudioOutput {
 public:
  bool playsSound() const override { return true; }
  void start(std::shared_ptr<AudioFeed> feed) override { *m_feed = std::move(feed); }
  void stop() override {}
  std::shared_ptr<std::shared_ptr<AudioFeed>> m_feed = std::make_shared<std::shared_ptr<AudioFeed>>();
};

// The source second whose tone is strongest (Goertzel at each second's pitch), -1 for silence.
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

  // 8 s at 30 fps, every speed with normal stretches between, sped-up ones ending on the frame grid.
  void SetUp() override {
    m_asset = openAsset(fixture({.seconds = 8, .gopFrames = 15}));
    ASSERT_TRUE(m_asset);
    m_timeline.emplace(timelineFor(
        *m_asset, std::nullopt,
        {{1000, 2000, Speed::x2}, {2500, 3500, Speed::x4}, {4000, 6000, Speed::x8}, {6500, 8000, Speed::x16}}));
    m_composition = compose(*m_timeline, m_asset);
  }

  // A player on a hand-moved clock, recording what it shows and plays, exact in every stretch.
  void makePlayer(std::shared_ptr<const Composition> item) {
    m_clock = std::make_shared<ManualClock>();
    auto audio = std::make_unique<RecordingAudio>();
    m_feed = audio->m_feed;
    m_player = std::make_unique<Player>(std::move(item), Player::Options{m_clock, std::move(audio), 0, false});
    m_player->setVideoOutput(&m_video);
    ASSERT_TRUE(waitFor([&] { return m_player->currentFrame().has_value(); }));
  }

  bool play() {
    m_player->play();
    return waitFor([&] { return m_player->timeControlStatus() == Status::playing; });
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
  const RationalTime end = m_composition->duration(), tick(1, 90000);
  std::vector<RationalTime> targets{RationalTime::zero(),           {1, 60}, RationalTime(1, 30) - tick, {29, 30}, end,
                                    end + RationalTime::seconds(3), {-1, 2}};
  for (const CompositionEdit& edit : m_composition->videoEdits()) {
    targets.insert(targets.end(), {edit.outputStart, edit.outputEnd() - tick, edit.outputStart + ms(70)});
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

// Through every speed, with a pause: each picture at its time, the right second's tone in normal
// stretches and silence in sped-up ones (windows 40 ms clear of any change), a tick every 100 ms of
// output time, and time and ticks standing still while paused.
TEST_F(PlayerTest, PlaysEveryStretchWithItsFramesSoundAndTicks) {
  makePlayer(m_composition);
  std::vector<RationalTime> ticks;
  m_player->addPeriodicTimeObserver({1, 10}, [&](RationalTime t) { ticks.push_back(t); });
  std::vector<float> heard;  // channels mixed, from output sample 0 on
  ASSERT_TRUE(play());
  constexpr int kStep = CompositionReader::kSampleRate / 50;
  const std::int64_t endSample = CompositionReader::audioSampleAt(m_composition->duration());
  for (int step = 0; m_player->timeControlStatus() == Status::playing; ++step) {
    if (step == 51) {
      m_player->pause();
      const RationalTime pausedAt = m_player->currentTime();
      const std::size_t ticksBefore = ticks.size();
      for (int i = 0; i < 10; ++i) m_clock->advance(50ms);
      settle(30ms);
      EXPECT_EQ(m_player->currentTime(), pausedAt);
      EXPECT_EQ(ticks.size(), ticksBefore) << "a tick while paused";
      EXPECT_EQ(m_player->timeControlStatus(), Status::paused);
      ASSERT_TRUE(play());
    }
    // The device takes the next 20 ms once the decoder has them, then the clock moves on.
    const std::int64_t want = std::min(CompositionReader::audioSampleAt(m_player->currentTime()) + kStep, endSample);
    waitFor([&] { return (*m_feed)->bufferedEnd().value_or(0) >= want; }, 2s);
    std::vector<float> chunk(kStep * 2);
    (*m_feed)->pull(chunk.data(), kStep, 0ns);
    for (std::size_t i = 0; i < chunk.size(); i += 2) heard.push_back(chunk[i] + chunk[i + 1]);
    advance(20ms);
  }
  EXPECT_EQ(m_player->currentTime(), m_composition->duration());
  EXPECT_EQ(m_video.lastBarcode(), expectedFrame(*m_composition, m_composition->duration()));

  int checked = 0;
  for (RationalTime t = ms(50); t < m_composition->duration(); t = t + ms(50)) {
    if (const auto second = expectedSecond(*m_composition, t, t + ms(50), ms(40))) {
      const auto from = static_cast<std::size_t>(CompositionReader::audioSampleAt(t));
      EXPECT_EQ(heardSecond(std::span<const float>(heard).subspan(from, CompositionReader::kSampleRate / 20)), *second)
          << "at output " << t.seconds() << " s";
      ++checked;
    }
  }
  EXPECT_GT(checked, 30);
  ASSERT_EQ(ticks.size(), static_cast<std::size_t>(m_composition->duration().seconds() * 10));
  for (std::size_t k = 0; k < ticks.size(); ++k) {
    const RationalTime boundary(static_cast<std::int64_t>(k) + 1, 10);
    EXPECT_TRUE(ticks[k] >= boundary && ticks[k] < boundary + ms(20)) << ticks[k].toString();
  }
}

// The model's swap after an edit: same source position, new item, seek there, play again if playing.
class PlayerSwapTest : public PlayerTest, public ::testing::WithParamInterface<bool> {};

TEST_P(PlayerSwapTest, ReplacingTheItemKeepsTheSourceFrameAndTheState) {
  makePlayer(m_composition);
  bool sought = false;
  m_player->seek({1, 3}, {}, {}, [&](bool) { sought = true; });  // inside the first normal stretch
  ASSERT_TRUE(waitFor([&] { return sought; }));
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
  const RationalTime source = m_timeline->sourceTimeForOutput(m_player->currentTime().convertedToTimescale(90000));
  const RationalTime target = edited.outputTimeForSource(source);
  const std::size_t shownBefore = m_video.frames.size(), ticksBefore = ticks.size();
  m_player->replaceCurrentItem(item);
  m_player->seek(target, {}, {}, [&](bool landed) {
    if (landed && GetParam()) m_player->play();
  });
  ASSERT_TRUE(waitFor([&] { return m_video.frames.size() > shownBefore; }));
  EXPECT_EQ(m_video.frames[shownBefore].barcode, before);
  EXPECT_EQ(ticks.size(), ticksBefore);
  ASSERT_TRUE(
      waitFor([&] { return m_player->timeControlStatus() == (GetParam() ? Status::playing : Status::paused); }));
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
  const double advanced = (player.currentTime() - start).seconds(),
               elapsed = static_cast<double>(wall.elapsed()) / 1000;
  player.pause();
  EXPECT_FALSE(player.error().has_value());
  EXPECT_NEAR(advanced, elapsed, 0.05);
  EXPECT_GT(video.frames.size(), 5u);
  ASSERT_TRUE(waitFor([&] { return video.lastBarcode() == expectedFrame(*m_composition, player.currentTime()); }, 2s));
}

// Reads of 100 frames from mono sound written for positions 1000 to 5999, each sample holding its
// own position.
TEST(AudioRing, ReadsFollowTheDuePositionLooselyAndPadWithSilence) {
  const struct {
    const char* what;
    std::uint64_t session;  // of the write; the ring's is 1
    std::vector<std::int64_t> dues;
    int leadingSilence;
    std::int64_t firstOfLastRead;  // after that silence; -1: all silence
  } cases[] = {
      {"exact", 1, {1000, 1100, 1200}, 0, 1200},
      {"jitter is ignored", 1, {1000, 1150, 1150}, 0, 1200},  // 50 then -50 frames off
      {"drift beyond the tolerance jumps ahead", 1, {1000, 1100 + AudioRing::kResyncFrames + 1}, 0, 2061},
      // Behind the sound already played: silence until the clock reaches what is left.
      {"drift back beyond the tolerance is silent", 1, {3000, 3100 - AudioRing::kResyncFrames - 1}, 100, -1},
      {"partly before the sound", 1, {950}, 50, 1000},
      {"before the sound", 1, {0}, 100, -1},
      {"past the sound", 1, {7000}, 100, -1},
      {"written for an older session (a replaced item, an earlier seek)", 0, {1000}, 100, -1},
  };
  for (const auto& c : cases) {
    AudioRing ring(1, 10'000);
    ring.reset(1);
    std::vector<float> sound(5000), out(100, -1.0f), expected(100);
    std::iota(sound.begin(), sound.end(), 1000.0f);
    EXPECT_EQ(ring.write(c.session, 1000, sound), c.session == 1 ? AudioRing::Write::written : AudioRing::Write::stale);
    for (const std::int64_t due : c.dues) ring.read(out.data(), 100, due);
    if (c.firstOfLastRead >= 0) {
      std::iota(expected.begin() + c.leadingSilence, expected.end(), static_cast<float>(c.firstOfLastRead));
    }
    EXPECT_EQ(out, expected) << c.what;
  }
}

}  // namespace
}  // namespace vantrix
