#include "media/CompositionBuilder.h"

#include "media/MediaLog.h"
#include "media/TimeMath.h"

#include <limits>

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

// Exact whenever a media time can hold the result: the value divided on the same timescale when it
// divides, else the same value over the timescale times the factor (10/1 s at x4 is 10/4 s, not a
// rounded 3/1). Only a timescale that would leave 32 bits is rounded to its nearest tick instead,
// ties away from zero: far below one frame or one audio sample.
RationalTime scaledDuration(RationalTime duration, Speed speed) {
  const std::int64_t f = multiplier(speed);
  if (duration.value() % f == 0) return {duration.value() / f, duration.timescale()};
  if (duration.timescale() <= std::numeric_limits<std::int32_t>::max() / f) return duration.dividedBy(f);
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
                 ("source range " + start.toString() + " to " + end.toString() +
                  " lies outside the video track, 0/1 to " + trackEnd.toString())
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
