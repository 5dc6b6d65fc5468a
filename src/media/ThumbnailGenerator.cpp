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

// The frames around one asked time: the latest one shown before it and the first at or after it.
struct Candidates {
  FramePtr before = makeFrame();
  FramePtr at = makeFrame();
  bool haveBefore = false;
  bool haveAt = false;
};

// One decoding thread per core. FFmpeg's own choice adds one more, which only lengthens the
// pipeline that every seek throws away; measured on two cores, 2 threads beat 3 by about 5 %.
int decoderThreads() { return static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 8u)); }

// A length of time in ticks of `timeBase`, rounded to the nearest tick.
std::int64_t ticks(RationalTime t, AVRational timeBase) {
  using namespace timemath;
  return narrow(roundDiv(mul(t.value(), timeBase.den), mul(t.timescale(), timeBase.num)));
}

std::int64_t distance(const AVFrame& f, std::int64_t target) {
  const std::int64_t d = f.best_effort_timestamp - target;
  return d < 0 ? -d : d;
}

// The closer of the two candidates within `tolerance` ticks; on a tie the earlier one, which is
// the frame on screen at the asked time.
const AVFrame* choose(const Candidates& c, std::int64_t target, std::int64_t tolerance) {
  const AVFrame* best = nullptr;
  if (c.haveBefore && distance(*c.before, target) <= tolerance) best = c.before.get();
  if (c.haveAt && distance(*c.at, target) <= tolerance &&
      (best == nullptr || distance(*c.at, target) < distance(*best, target)))
    best = c.at.get();
  return best;
}

// Decodes on until the first frame at or after `target`, keeping it and the last frame before it
// in `c`. Returns that first frame's timestamp, from which decoding can go on; AV_NOPTS_VALUE when
// the stream ended or failed before it, or `stop` was triggered.
std::int64_t decodeUpTo(VideoDecoder& decoder, std::int64_t target, Candidates& c, const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    const auto frame = decoder.nextFrame();
    if (!frame || *frame == nullptr) break;
    const std::int64_t ts = (*frame)->best_effort_timestamp;
    const bool early = ts < target;
    AVFrame* slot = early ? c.before.get() : c.at.get();
    av_frame_unref(slot);
    if (av_frame_ref(slot, *frame) < 0) break;
    if (early) {
      c.haveBefore = true;
      continue;
    }
    c.haveAt = true;
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

  const VideoTrack& track = *m_asset->video();
  const std::int64_t tolerance = ticks(kTolerance, track.timeBase);
  const QSize upright = imageSize(imageHeight(height, scale));
  const QSize stored = track.transform.swapsAxes() ? upright.transposed() : upright;
  FrameScaler scaler;
  Candidates c;
  // Timestamp of the first frame at or after the previous target, while decoding can go on from
  // there; AV_NOPTS_VALUE after a seek failed or the stream ended.
  std::int64_t position = AV_NOPTS_VALUE;

  for (std::size_t i = 0; i < times.size(); ++i) {
    if (stop.stop_requested()) break;
    const std::int64_t target = m_asset->timestampForSourceTime(times[i], track.timeBase);

    // Going on from the current position is cheaper than seeking when no keyframe lies between it
    // and the target; the last frame then stays the candidate before the target.
    const auto keyframe = decoder->keyframeAtOrBefore(target);
    const bool goOn = position != AV_NOPTS_VALUE && position < target && keyframe && *keyframe <= position;
    if (goOn) {
      std::swap(c.before, c.at);
      c.haveBefore = c.haveAt;
    } else {
      if (!decoder->seek(target)) {
        position = AV_NOPTS_VALUE;
        continue;
      }
      c.haveBefore = false;
    }
    c.haveAt = false;
    decoder->skipNonReferenceFramesBefore(target - tolerance);
    decoder->keepOnlyTheLastFrameBefore(target);

    position = decodeUpTo(*decoder, target, c, stop);
    if (stop.stop_requested()) break;

    if (const AVFrame* best = choose(c, target, tolerance)) {
      QImage image = track.transform.applied(scaler.toImage(*best, stored));
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
