#pragma once

#include "model/RationalTime.h"
#include "model/SpeedTimeline.h"
#include "persistence/Session.h"

#include <expected>
#include <optional>

namespace vantrix {

// Rebuilds a video's timeline from its stored session, all or nothing: starting from
// the fresh timeline of `sourceDuration` (the video's duration now), it applies the stored trim,
// then each stored segment in stored order through the checked construction (invalidRange unless
// start < end) with a fresh id, and the timeline's checked insertion (outsideTrim, overlap).
// One refusal beyond the timeline's own checks keeps outside input from stopping the process: a
// stored time whose timescale is below 1, or that would push the least common multiple of all
// timescales in play (the stored ones, the video's and 90000) times 16 past INT32_MAX, is refused
// as invalidTrim (trim) or invalidRange (segment) before it is applied; see SessionRestore.cpp.
// The first refusal ends the restore and is returned; the caller logs its name
// ("Restored session violated a domain invariant; starting fresh: overlap") and uses
// SpeedTimeline(sourceDuration). A partly restored timeline is never handed out.
//
// Precondition (fatal): sourceDuration > 0.
std::expected<SpeedTimeline, SpeedTimelineError> restoreTimeline(const Session& session, RationalTime sourceDuration);

// The opening step as a whole: no session gives the fresh timeline; a refused restore gives the
// fresh timeline and the refusal for the caller's log line.
struct RestoredTimeline {
  SpeedTimeline timeline;
  std::optional<SpeedTimelineError> refusal;
};
RestoredTimeline restoreTimelineOrFresh(const std::optional<Session>& session, RationalTime sourceDuration);

}  // namespace vantrix
