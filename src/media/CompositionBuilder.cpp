#include "media/CompositionBuilder.h"

#include "media/MediaLog.h"
#include "media/TimeMath.h"

namespace vantrix::CompositionBuilder {
namespace {

// The media time a range bound is handed to the tracks as: the editing model allows any 64-bit
// timescale, media times carry 32-bit ones.
RationalTime asMediaTime(RationalTime t) { return RationalTime::fromMediaTime(t.toMediaTime()); }

}  // namespace

std::vector<Range> ranges(const SpeedTimeline& timeline) {
  std::vector<Range> result;
  result.reserve(timeline.segments().size() * 2 + 1);
  RationalTime cursor = timeline.trimStart();
  for (const SpeedSegment& segment : timeline.segments()) {
    if (cursor < segment.start) result.push_back({cursor, segment.start, std::nullopt});
    result.push_back({segment.start, segment.end, segment.speed});
    cursor = segment.end;
  }
  if (cursor < timeline.trimEnd()) result.push_back({cursor, timeline.trimEnd(), std::nullopt});
  return result;
}

// The duration keeps its timescale instead of becoming value / (timescale * factor): every
// output position then stays on the grid of the times it came from (the source's ticks, or 1/90000
// s), so timescales do not multiply by the factor with every sped-up range, and the player and the
// exporter can place frames and samples without carrying ever finer fractions. The price is at
// most half a tick per sped-up range, which is far below one frame or one audio sample.
RationalTime scaledDuration(RationalTime duration, Speed speed) {
  const std::int64_t f = multiplier(speed);
  if (duration.value() % f == 0) return {duration.value() / f, duration.timescale()};
  return {timemath::narrow(timemath::roundDiv(duration.value(), f)), duration.timescale()};
}

std::expected<std::shared_ptr<const Composition>, AppError> build(const SpeedTimeline& timeline,
                                                                  const std::shared_ptr<const MediaAsset>& asset) {
  if (!asset || !asset->video()) {
    qCCritical(lcMedia, "Asset has no video track; cannot build composition.");
    return std::unexpected(AppError::compositionFailed());
  }
  const bool withAudio = asset->audio().has_value();
  const RationalTime trackEnd = asset->duration();

  std::vector<CompositionEdit> video;
  std::optional<std::vector<CompositionEdit>> audio;
  if (withAudio) audio.emplace();

  RationalTime cursor = RationalTime::zero();
  for (const Range& range : ranges(timeline)) {
    const RationalTime start = asMediaTime(range.start);
    const RationalTime end = asMediaTime(range.end);
    if (start < RationalTime::zero() || trackEnd < end) {
      qCCritical(lcMedia, "Track insertion failed: %s",
                 ("source range " + start.toString() + " to " + end.toString() + " lies outside the video track, 0/1 to " +
                  trackEnd.toString())
                     .c_str());
      return std::unexpected(AppError::compositionFailed());
    }
    const RationalTime duration = end - start;
    if (range.speed) {
      const RationalTime scaled = scaledDuration(duration, *range.speed);
      // A range shorter than half a tick at its speed takes no output time; an edit for it
      // would never be read.
      if (scaled.value() != 0) video.push_back({start, duration, cursor, scaled, range.speed});
      cursor = cursor + scaled;
    } else {
      video.push_back({start, duration, cursor, duration, std::nullopt});
      if (audio) audio->push_back({start, duration, cursor, duration, std::nullopt});
      cursor = cursor + duration;
    }
  }
  return std::make_shared<const Composition>(asset, asset->video()->transform, std::move(video), std::move(audio));
}

}  // namespace vantrix::CompositionBuilder
