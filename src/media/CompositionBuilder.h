#pragma once

#include "media/AppError.h"
#include "media/Composition.h"
#include "media/MediaAsset.h"
#include "model/RationalTime.h"
#include "model/Speed.h"
#include "model/SpeedTimeline.h"

#include <expected>
#include <memory>
#include <optional>
#include <vector>

// Turns the edit document into the composition that the player shows and the exporter writes:
// inside the trim, each speed segment plays `factor` times faster without sound, everything
// between segments plays at normal speed with sound, and what lies outside the trim is absent.
// Stateless; every function is safe to call from any thread.
namespace vantrix::CompositionBuilder {

// One stretch of source time [start, end) and how it plays; no speed means normal speed.
struct Range {
  RationalTime start;
  RationalTime end;
  std::optional<Speed> speed;
  friend bool operator==(const Range&, const Range&) = default;
};

// The trim range cut into normal-speed gaps and sped-up segments, in order: a gap before each
// segment that starts after the cursor, the segment itself, and a tail up to trimEnd. Relies on the
// timeline's invariants (sorted, non-overlapping segments inside the trim) and checks nothing;
// never yields a zero-length gap.
std::vector<Range> ranges(const SpeedTimeline& timeline);

// `duration` divided by a speed factor, exactly: on the same timescale when the value divides,
// else over the timescale times the factor; rounded to the nearest tick (ties away from zero) only
// when that timescale would not fit a media time's 32 bits.
RationalTime scaledDuration(RationalTime duration, Speed speed);

// Lays the ranges one after another from output zero, video for every range and audio (when the
// source has it) for the normal-speed ones; the output cursor advances by the unscaled duration
// for a normal range and by scaledDuration for a sped-up one. Source times become media times
// first (a timescale above 2^31 - 1 is rounded to 2^31 - 1). Refusals, logged at error level:
//   the asset has no video     -> "Asset has no video track; cannot build composition."
//   a range outside the video  -> "Track insertion failed: DETAIL"
// both as compositionFailed. No ranges gives an empty composition (its tracks, no edits).
// Blocks on nothing; the caller discards the result if it was cancelled meanwhile.
std::expected<std::shared_ptr<const Composition>, AppError> build(const SpeedTimeline& timeline,
                                                                  const std::shared_ptr<const MediaAsset>& asset);

}  // namespace vantrix::CompositionBuilder
