#include "media/ThumbnailGenerator.h"

#include "media/FrameScaler.h"
#include "media/TimeMath.h"
#include "media/VideoDecoder.h"

#include <algorithm>
#include <cmath>
#include <thread>
#include <utility>

namespace vantrix {
namespace {

// One decoding thread per core. FFmpeg's own choice adds one more, which only lengthens the
// pipeline that every seek throws away; measured on two cores, 2 threads beat 3 by about 5 %.
int decoderThreads() { return static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 8u)); }

// A length of time in ticks of `timeBase`, rounded to the nearest tick.
std::int64_t ticks(RationalTime t, AVRational timeBase) {
  using namespace timemath;
  return narrow(roundDiv(mul(t.value(), timeBase.den), mul(t.timescale(), timeBase.num)));
}

// Decodes on until the first frame shown at or after `earliest` and keeps it in `frame`. Returns
// its timestamp, from which decoding can go on; AV_NOPTS_VALUE when the stream ended or failed
// before it, or `stop` was triggered.
std::int64_t decodeFrom(VideoDecoder& decoder, std::int64_t earliest, AVFrame* frame, const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    const auto decoded = decoder.nextFrame();
    if (!decoded || *decoded == nullptr) break;
    const std::int64_t ts = (*decoded)->best_effort_timestamp;
    if (ts < earliest) continue;
    av_frame_unref(frame);
    if (av_frame_ref(frame, *decoded) < 0) break;
    return ts;
  }
  return AV_NOPTS_VALUE;
}

}  // namespace

ThumbnailGenerator::ThumbnailGenerator(std::shared_ptr<const MediaAsset> asset) : m_asset(std::move(asset)) {}

int ThumbnailGenerator::imageHeight(double height, double scale) {
  const double product = height * scale;
  if (!(product >= 1)) return 1;  // also catches NaN
  return static_cast<int>(std::min(std::lround(product), 16384L));
}

QSize ThumbnailGenerator::imageSize(int height) const {
  height = std::max(1, height);
  if (!m_asset->video()) return {height, height};
  const VideoTrack& v = *m_asset->video();
  double aspect = v.height > 0 ? (v.width * av_q2d(v.sampleAspectRatio)) / v.height : 1.0;
  if (v.transform.swapsAxes() && aspect > 0) aspect = 1.0 / aspect;
  if (!(aspect > 0) || !std::isfinite(aspect)) aspect = 1.0;
  return {std::max(1, static_cast<int>(std::lround(height * aspect))), height};
}

ThumbnailGenerator::Summary ThumbnailGenerator::generate(std::span<const RationalTime> times, double height,
                                                         double scale, std::stop_token stop,
                                                         const Sink& deliver) const {
  Summary summary;
  if (times.empty() || stop.stop_requested() || !m_asset->video()) return summary;
  auto decoder = VideoDecoder::open(m_asset, stop, decoderThreads());
  if (!decoder) return summary;
  decoder->skipDeblocking();  // invisible at filmstrip sizes

  const VideoTrack& track = *m_asset->video();
  const std::int64_t tolerance = ticks(kTolerance, track.timeBase);
  const QSize upright = imageSize(imageHeight(height, scale));
  const QSize stored = track.transform.swapsAxes() ? upright.transposed() : upright;
  FrameScaler scaler;
  FramePtr frame = makeFrame();
  // Timestamp of `frame`, the last frame taken, while decoding can go on from there;
  // AV_NOPTS_VALUE after a seek failed or the stream ended.
  std::int64_t position = AV_NOPTS_VALUE;

  for (std::size_t i = 0; i < times.size(); ++i) {
    if (stop.stop_requested()) break;
    const std::int64_t target = m_asset->timestampForSourceTime(times[i], track.timeBase);
    // Any frame within the tolerance will do, so the first one decoded from `earliest` on is
    // taken: the frames between it and the asked time are never decoded.
    const std::int64_t earliest = target - tolerance;

    // Going on from the current position is cheaper than seeking when no keyframe lies between it
    // and the target; a frame already taken may even serve again.
    const auto keyframe = decoder->keyframeAtOrBefore(target);
    const bool goOn = position != AV_NOPTS_VALUE && position <= target && keyframe && *keyframe <= position;
    if (!goOn || position < earliest) {
      if (!goOn && !decoder->seek(target)) {
        position = AV_NOPTS_VALUE;
        continue;
      }
      decoder->skipNonReferenceFramesBefore(earliest);
      position = decodeFrom(*decoder, earliest, frame.get(), stop);
    }
    if (stop.stop_requested()) break;

    if (position != AV_NOPTS_VALUE && position <= target + tolerance) {
      QImage image = track.transform.applied(scaler.toImage(*frame, stored));
      if (!image.isNull()) {
        deliver(Thumbnail{static_cast<int>(i), std::move(image)});
        ++summary.delivered;
      }
    }
  }
  summary.framesDecoded = decoder->framesDecoded();
  return summary;
}

}  // namespace vantrix
