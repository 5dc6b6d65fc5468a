#pragma once

#include "model/RationalTime.h"
#include "model/SpeedSegment.h"

#include <optional>
#include <span>
#include <vector>

namespace vantrix {

// A rectangle in strip coordinates (points).
struct RectF {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  friend bool operator==(const RectF&, const RectF&) = default;
};

// Pure mapping between source time and horizontal positions on the timeline strip, plus the
// range computations the strip's gestures need while a drag is in progress. Holds no state
// beyond its two fields; every clamp or minimum returns one of its inputs unchanged (with that
// input's own timescale) rather than a normalised time.
class TimelineGeometry {
 public:
  static constexpr double kStripHeight = 64;

  struct SegmentRange {
    RationalTime start;
    RationalTime end;
    friend bool operator==(const SegmentRange&, const SegmentRange&) = default;
  };
  struct TrimRange {
    RationalTime start;
    RationalTime end;
    friend bool operator==(const TrimRange&, const TrimRange&) = default;
  };
  enum class DragMode { undecided, mark };
  enum class Edge { start, end };
  enum class TrimEdge { start, end };

  TimelineGeometry(double width, RationalTime duration) : m_width(width), m_duration(duration) {}

  double width() const { return m_width; }
  RationalTime duration() const { return m_duration; }

  // Strip position to time: 0/1 at or left of 0, `duration` itself at or right of the width,
  // otherwise round-half-away(x / width * duration.value) over duration's timescale.
  RationalTime timeAtX(double x) const;
  // Time to strip position, unrounded, clamped to [0, width].
  double xForTime(RationalTime t) const;
  // The rectangle a range occupies (full strip height); zero width when reversed.
  RectF rect(RationalTime start, RationalTime end) const;

  // The region a drag on empty strip from fromX to toX proposes: ordered, clamped to the trim,
  // pushed past segments it starts in and stopped at the next segment; none when empty.
  std::optional<SegmentRange> proposedRange(double fromX, double toX, RationalTime trimStart, RationalTime trimEnd,
                                            std::span<const SpeedSegment> segments) const;
  // The live range of `segment` while its `edge` is dragged to x: never crosses a neighbour or
  // the trim, and keeps at least minimumLength where there is room.
  SegmentRange resizedRange(const SpeedSegment& segment, Edge edge, double x, RationalTime trimStart,
                            RationalTime trimEnd, std::span<const SpeedSegment> segments,
                            RationalTime minimumLength) const;
  // The live trim range while a trim handle is dragged to x; segments are not consulted.
  TrimRange trimmedRange(TrimEdge edge, double x, RationalTime trimStart, RationalTime trimEnd,
                         RationalTime minimumLength) const;

  // The first segment (in stored order) with start <= t < end.
  static std::optional<Uuid> segmentId(RationalTime t, std::span<const SpeedSegment> segments);
  // `count` filmstrip sample times: i * duration / count for i in [0, count), as exact values
  // (duration.value * i) / (duration.timescale * count).
  static std::vector<RationalTime> sampleTimes(int count, RationalTime duration);
  // One tick of the open video's timescale.
  static RationalTime minimumLength(RationalTime videoDuration) {
    return {1, videoDuration.timescale() > 1 ? videoDuration.timescale() : 1};
  }

  friend bool operator==(const TimelineGeometry&, const TimelineGeometry&) = default;

 private:
  double m_width;
  RationalTime m_duration;
};

}  // namespace vantrix
