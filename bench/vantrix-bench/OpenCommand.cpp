// vantrix-bench open SOURCE: loads the video as the editor does, then decodes its first frame.
// open_ms is the load (checks, probe), first_frame_ms the time from the start of the load until the
// first frame is decoded; duration is the exact video duration as "value/timescale".

#include "BenchSupport.h"
#include "Commands.h"

#include "media/LoadedVideo.h"
#include "media/VideoDecoder.h"

namespace vantrix::bench {

int runOpen(std::span<const std::string_view> args) {
  const auto parsed = Arguments::parse(args, {});
  if (!parsed || parsed->positional().size() != 1) return usageError("usage: vantrix-bench open SOURCE");
  const std::filesystem::path source{std::string(parsed->positional().front())};

  const Stopwatch clock;
  const auto video = LoadedVideo::load(source);
  if (!video) return fail(video.error());
  const double openMs = clock.milliseconds();

  auto decoder = VideoDecoder::open(video->asset);
  if (!decoder) return fail(AppError::unsupportedFile());
  const auto frame = decoder->nextFrame();
  if (!frame || *frame == nullptr) return fail(AppError::unsupportedFile());
  const double firstFrameMs = clock.milliseconds();

  nlohmann::ordered_json result;
  result["open_ms"] = openMs;
  result["first_frame_ms"] = firstFrameMs;
  result["duration"] = video->asset->duration().toString();
  result["width"] = (*frame)->width;
  result["height"] = (*frame)->height;
  return succeed(result);
}

}  // namespace vantrix::bench
