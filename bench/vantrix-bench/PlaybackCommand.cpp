// vantrix-bench playback SOURCE [--trim START END] [--segment START END SPEED]... --from T --seconds S:
// opens SOURCE as the editor does, builds the edit's composition, seeks the player to output time T
// and plays it on the wall clock for S seconds with the picture scaled for a 960x540 view and no
// sound device. open_to_first_frame_ms runs from the start of the load to the first picture shown
// (output time zero); the other figures cover the S seconds of playing. late_frames counts pictures
// shown more than 20 ms after their time or passed over; catch_up_frames those sampled from keyframes
// to keep up with a sped-up stretch.

#include "BenchSupport.h"
#include "Commands.h"
#include "PlaybackSupport.h"
#include "TimelineArguments.h"

#include "media/CompositionBuilder.h"
#include "media/LoadedVideo.h"
#include "media/Player.h"

namespace vantrix::bench {

int runPlayback(std::span<const std::string_view> args) {
  auto arity = kTimelineOptions;
  arity.emplace("--from", 1);
  arity.emplace("--seconds", 1);
  const auto parsed = Arguments::parse(args, arity);
  const char* usage = "usage: vantrix-bench playback SOURCE [--trim START END] [--segment START END SPEED]... --from T --seconds S";
  if (!parsed || parsed->positional().size() != 1) return usageError(usage);
  const auto from = parseTime(parsed->value("--from").value_or(""));
  const auto seconds = parseTime(parsed->value("--seconds").value_or(""));
  if (!from || !seconds || seconds->seconds() <= 0) return usageError(usage);
  application();

  const Stopwatch opening;
  const std::filesystem::path source{std::string(parsed->positional().front())};
  const auto video = LoadedVideo::load(source);
  if (!video) return fail(video.error());
  const auto timeline = timelineFromArguments(*parsed, video->asset->duration());
  if (!timeline) return usageError(timeline.error());
  const auto composition = CompositionBuilder::build(*timeline, video->asset);
  if (!composition) return fail(composition.error());
  Player player(*composition, Player::Options{nullptr, std::make_unique<NullAudioOutput>(), 0, true});
  TimingOutput output;
  player.setVideoOutput(&output);
  player.setVideoSize(kViewSize);
  if (!runUntil([&] { return output.presented > 0 || player.error(); }, std::chrono::seconds(10)) || player.error())
    return fail(AppError::unsupportedFile());
  const double openToFirstFrameMs = opening.milliseconds();

  bool landed = false;
  player.seek(*from, {}, {}, [&](bool) { landed = true; });
  runUntil([&] { return landed; }, std::chrono::seconds(10));
  const Player::Statistics before = player.statistics();
  const RationalTime start = player.currentTime();

  const Stopwatch playing;
  player.play();
  runUntil([&] { return player.error().has_value(); },
           std::chrono::milliseconds(static_cast<long>(seconds->seconds() * 1000)));
  const double wall = playing.seconds();
  player.pause();
  if (player.error()) return fail(AppError::unsupportedFile());
  const Player::Statistics& after = player.statistics();

  nlohmann::ordered_json result;
  result["wall_s"] = wall;
  result["output_advanced_s"] = (player.currentTime() - start).seconds();
  result["frames_presented"] = after.framesPresented - before.framesPresented;
  result["distinct_frames"] = after.distinctFrames - before.distinctFrames;
  result["late_frames"] = after.lateFrames - before.lateFrames;
  result["catch_up_frames"] = after.catchUpFrames - before.catchUpFrames;
  result["open_to_first_frame_ms"] = openToFirstFrameMs;
  result["peak_memory_mb"] = peakMemoryMegabytes();
  return succeed(result);
}

}  // namespace vantrix::bench
