// vantrix-bench edit-latency SOURCE: plays SOURCE from 10 s (or its middle when shorter) and, 20
// times, applies an edit exactly as the editor does after a gesture: a copy of the timeline gains
// (or, every other time, loses) a 4x segment starting a second after the playhead, the composition
// is rebuilt, swapped into the player and sought to the same source position, and playback resumes.
// median_ms is the median time from the edit to the first picture of the new composition on screen.

#include "BenchSupport.h"
#include "Commands.h"
#include "PlaybackSupport.h"

#include "media/CompositionBuilder.h"
#include "media/LoadedVideo.h"
#include "media/Player.h"

#include <algorithm>
#include <vector>

namespace vantrix::bench {
namespace {

constexpr int kEdits = 20;
constexpr std::chrono::milliseconds kPlayBetweenEdits{300};

}  // namespace

int runEditLatency(std::span<const std::string_view> args) {
  const auto parsed = Arguments::parse(args, {});
  if (!parsed || parsed->positional().size() != 1) return usageError("usage: vantrix-bench edit-latency SOURCE");
  application();
  const std::filesystem::path source{std::string(parsed->positional().front())};
  const auto video = LoadedVideo::load(source);
  if (!video) return fail(video.error());
  const RationalTime duration = video->asset->duration();

  SpeedTimeline installed(duration);
  auto composition = CompositionBuilder::build(installed, video->asset);
  if (!composition) return fail(composition.error());
  Player player(*composition, Player::Options{nullptr, std::make_unique<NullAudioOutput>(), 0, true});
  TimingOutput output;
  player.setVideoOutput(&output);
  player.setVideoSize(kViewSize);
  const RationalTime start = std::min(RationalTime::seconds(10), RationalTime(duration.value(), duration.timescale() * 2));
  bool landed = false;
  player.seek(start, {}, {}, [&](bool) { landed = true; });
  if (!runUntil([&] { return landed && !player.error(); }, std::chrono::seconds(10))) return fail(AppError::unsupportedFile());
  player.play();

  std::vector<double> latencies;
  for (int i = 0; i < kEdits; ++i) {
    runUntil([] { return false; }, kPlayBetweenEdits);
    const Stopwatch edit;
    const RationalTime sourceNow =
        installed.sourceTimeForOutput(player.currentTime().convertedToTimescale(RationalTime::kStandardTimescale));
    SpeedTimeline edited(duration);
    if (i % 2 == 0) {
      const RationalTime from = sourceNow.convertedToTimescale(10) + RationalTime::seconds(1);
      if (!edited.addSegment(from, from + RationalTime::seconds(2), Speed::x4)) return fail(AppError::unsupportedFile());
    }
    auto rebuilt = CompositionBuilder::build(edited, video->asset);
    if (!rebuilt) return fail(rebuilt.error());
    const bool wasPlaying = player.timeControlStatus() != Player::TimeControlStatus::paused;
    const RationalTime target = edited.outputTimeForSource(sourceNow);
    const int clearsBefore = output.clears;
    player.replaceCurrentItem(*rebuilt);
    installed = edited;
    const int presentedAtSwap = output.presented;
    player.seek(target, {}, {}, [&](bool ok) {
      if (ok && wasPlaying) player.play();
    });
    if (!runUntil([&] { return output.presented > presentedAtSwap || player.error(); }, std::chrono::seconds(10)) ||
        player.error() || output.clears == clearsBefore)
      return fail(AppError::unsupportedFile());
    // The edit began edit.milliseconds() ago; the picture came lastAt.
    const auto sinceShown = std::chrono::steady_clock::now() - output.lastAt;
    latencies.push_back(edit.milliseconds() - std::chrono::duration<double, std::milli>(sinceShown).count());
  }
  player.pause();

  std::vector<double> sorted = latencies;
  std::ranges::sort(sorted);
  nlohmann::ordered_json result;
  result["median_ms"] = (sorted[kEdits / 2 - 1] + sorted[kEdits / 2]) / 2;
  result["min_ms"] = sorted.front();
  result["max_ms"] = sorted.back();
  result["edits"] = kEdits;
  result["peak_memory_mb"] = peakMemoryMegabytes();
  return succeed(result);
}

}  // namespace vantrix::bench
