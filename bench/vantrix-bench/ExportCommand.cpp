// vantrix-bench export SOURCE OUTPUT [--trim START END] [--segment START END SPEED]...: opens the
// source, applies the edit through the timeline's checked edits, builds the composition and
// exports it as the editor does. Prints wall_s (load to finished file), output_duration (the
// composition's, "value/timescale") and frames (video frames in the written file).

#include "BenchSupport.h"
#include "Commands.h"
#include "TimelineArguments.h"

#include "media/CompositionBuilder.h"
#include "media/Exporter.h"
#include "media/LoadedVideo.h"
#include "media/MediaInput.h"

#include <iostream>

namespace vantrix::bench {
namespace {

// Video packets in the first video stream of `file`; -1 when it cannot be read.
long countVideoFrames(const std::filesystem::path& file) {
  auto input = MediaInput::open(file, {});
  if (!input) return -1;
  const int stream = av_find_best_stream(input->context(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (stream < 0) return -1;
  PacketPtr packet = makePacket();
  long frames = 0;
  while (av_read_frame(input->context(), packet.get()) >= 0) {
    if (packet->stream_index == stream) ++frames;
    av_packet_unref(packet.get());
  }
  return frames;
}

}  // namespace

int runExport(std::span<const std::string_view> args) {
  const auto parsed = Arguments::parse(args, kTimelineOptions);
  if (!parsed || parsed->positional().size() != 2)
    return usageError("usage: vantrix-bench export SOURCE OUTPUT [--trim START END] [--segment START END SPEED]...");
  const std::filesystem::path source{std::string(parsed->positional()[0])};
  const std::filesystem::path output{std::string(parsed->positional()[1])};

  const Stopwatch clock;
  const auto video = LoadedVideo::load(source);
  if (!video) return fail(video.error());
  const auto timeline = timelineFromArguments(*parsed, video->asset->duration());
  if (!timeline) return usageError(timeline.error());
  const auto composition = CompositionBuilder::build(*timeline, video->asset);
  if (!composition) return fail(composition.error());
  const auto outcome = Exporter::exportComposition(*composition, output, {}, {});
  if (!outcome) return fail(outcome.error());
  const double wall = clock.seconds();

  nlohmann::ordered_json result;
  result["wall_s"] = wall;
  result["output_duration"] = (*composition)->duration().toString();
  result["frames"] = countVideoFrames(output);
  return succeed(result);
}

}  // namespace vantrix::bench
