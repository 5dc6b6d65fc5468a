#pragma once

#include "model/RationalTime.h"
#include "model/SpeedSegment.h"

#include <expected>
#include <string_view>
#include <vector>

namespace vantrix {

// Why an edit was refused. Printed by name in log lines ("overlap").
enum class SpeedTimelineError { invalidRange, overlap, outsideTrim, invalidTrim, noSuchSegment };

std::string_view toString(SpeedTimelineError e);

// The edit document of one video: the source length, the kept (trim) range and the sped-up regions.
//
// Invariants kept by every edit:
//   0 <= trimStart < trimEnd <= sourceDuration;
//   every segment lies inside the trim range and has start < end;
//   segments never overlap (they may touch) and are sorted by start after inserts and resizes;
//   ids are unique.
// Edits run all their checks before changing anything: a refused edit leaves the document exactly
// as it was. The two mappings are exact, one pass and allocation-free (they run on every player tick).
//
// A plain value; not synchronised.
class SpeedTimeline {
 public:
  // Precondition: sourceDuration > 0. The trim covers the whole source; no segments.
  explicit SpeedTimeline(RationalTime sourceDuration);

  RationalTime sourceDuration() const { return m_sourceDuration; }
  RationalTime trimStart() const { return m_trimStart; }
  RationalTime trimEnd() const { return m_trimEnd; }
  const std::vector<SpeedSegment>& segments() const { return m_segments; }

  // Sets the kept range, clipping segments that stick out and dropping those left empty.
  // Refused with invalidTrim unless 0 <= start < end <= sourceDuration.
  std::expected<void, SpeedTimelineError> setTrim(RationalTime start, RationalTime end);
  // Errors, in check order: invalidRange, outsideTrim, overlap.
  std::expected<void, SpeedTimelineError> addSegment(RationalTime start, RationalTime end, Speed speed);
  // Moves or resizes a segment, keeping its id and speed. Errors: noSuchSegment, invalidRange,
  // outsideTrim, overlap (the segment's own former extent does not count as an overlap).
  std::expected<void, SpeedTimelineError> updateSegment(const Uuid& id, RationalTime start, RationalTime end);
  // Changes one segment's speed in place; the order and bounds stay. Error: noSuchSegment.
  std::expected<void, SpeedTimelineError> setSpeed(Speed speed, const Uuid& id);
  // Inserts an already checked segment as the session restore does (its own id is kept).
  // Errors: outsideTrim, overlap.
  std::expected<void, SpeedTimelineError> insertSegment(const SpeedSegment& segment);
  // Owner-side removal of every segment with this id; cannot break an invariant.
  void removeSegment(const Uuid& id);

  // Source time to output time (output 0 is trimStart); t is clamped to the trim range first.
  RationalTime outputTimeForSource(RationalTime t) const;
  // Output time to source time; o is clamped to [0, output length] first.
  RationalTime sourceTimeForOutput(RationalTime o) const;
  // The length of the edited video: outputTimeForSource(trimEnd).
  RationalTime outputDuration() const { return outputTimeForSource(m_trimEnd); }

  friend bool operator==(const SpeedTimeline&, const SpeedTimeline&) = default;

 private:
  std::expected<void, SpeedTimelineError> insertChecked(const SpeedSegment& segment, const Uuid* replacedId);
  const SpeedSegment* find(const Uuid& id) const;

  RationalTime m_sourceDuration;
  RationalTime m_trimStart;
  RationalTime m_trimEnd;
  std::vector<SpeedSegment> m_segments;
};

}  // namespace vantrix
