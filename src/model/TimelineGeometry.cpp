#include "model/TimelineGeometry.h"

#include "model/Check.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vantrix {
namespace {

// Lower bound tested first: with lower > upper a value below lower still yields lower.
RationalTime clamp(RationalTime a, RationalTime lower, RationalTime upper) {
  if (a < lower) return lower;
  if (a > upper) return upper;
  return a;
}

std::vector<SpeedSegment> sortedByStart(std::span<const SpeedSegment> segments) {
  std::vector<SpeedSegment> sorted(segments.begin(), segments.end());
  std::ranges::stable_sort(sorted, std::less<>{}, &SpeedSegment::start);
  return sorted;
}

}  // namespace

RationalTime TimelineGeometry::timeAtX(double x) const {
  if (m_width <= 0) return RationalTime::zero();
  if (!(m_duration > RationalTime::zero()) || x <= 0) return RationalTime::zero();
  if (x >= m_width) return m_duration;
  const double scaled = std::round(x / m_width * static_cast<double>(m_duration.value()));  // half away from zero
  VANTRIX_CHECK(std::isfinite(scaled) && std::fabs(scaled) < 0x1p63, "strip position out of the time range");
  return {static_cast<std::int64_t>(scaled), m_duration.timescale()};
}

double TimelineGeometry::xForTime(RationalTime t) const {
  if (m_width <= 0 || !(m_duration > RationalTime::zero())) return 0;
  if (t <= RationalTime::zero()) return 0;
  if (t >= m_duration) return m_width;
  return (static_cast<double>(t.value()) * static_cast<double>(m_duration.timescale())) /
         (static_cast<double>(t.timescale()) * static_cast<double>(m_duration.value())) * m_width;
}

RectF TimelineGeometry::rect(RationalTime start, RationalTime end) const {
  const double x0 = xForTime(start);
  const double w = xForTime(end) - x0;
  return {x0, 0, (std::isnan(w) || w < 0) ? 0 : w, kStripHeight};
}

std::optional<TimelineGeometry::SegmentRange> TimelineGeometry::proposedRange(
    double fromX, double toX, RationalTime trimStart, RationalTime trimEnd,
    std::span<const SpeedSegment> segments) const {
  const RationalTime a = timeAtX(fromX);
  const RationalTime b = timeAtX(toX);
  const auto [low, high] = a <= b ? std::pair{a, b} : std::pair{b, a};
  RationalTime start = clamp(low, trimStart, trimEnd);
  RationalTime end = clamp(high, trimStart, trimEnd);

  const std::vector<SpeedSegment> sorted = sortedByStart(segments);
  for (const SpeedSegment& s : sorted)
    if (s.start <= start && start < s.end) start = s.end;
  const auto next = std::ranges::find_if(sorted, [&](const SpeedSegment& s) { return s.start >= start; });
  if (next != sorted.end() && next->start < end) end = next->start;

  if (start < end) return SegmentRange{start, end};
  return std::nullopt;
}

TimelineGeometry::SegmentRange TimelineGeometry::resizedRange(const SpeedSegment& segment, Edge edge, double x,
                                                              RationalTime trimStart, RationalTime trimEnd,
                                                              std::span<const SpeedSegment> segments,
                                                              RationalTime minimumLength) const {
  const RationalTime t = clamp(timeAtX(x), trimStart, trimEnd);
  if (edge == Edge::end) {
    RationalTime upper = trimEnd;
    for (const SpeedSegment& other : segments)
      if (other.id != segment.id && segment.start <= other.start && other.start < upper) upper = other.start;
    RationalTime newEnd = clamp(t, segment.start, upper);
    const RationalTime shortest = segment.start + minimumLength;
    if (newEnd < shortest) newEnd = shortest > upper ? upper : shortest;
    return {segment.start, newEnd};
  }
  RationalTime lower = trimStart;
  for (const SpeedSegment& other : segments)
    if (other.id != segment.id && other.end <= segment.end && lower < other.end) lower = other.end;
  RationalTime newStart = clamp(t, lower, segment.end);
  const RationalTime latest = segment.end - minimumLength;
  if (newStart > latest) newStart = latest < lower ? lower : latest;
  return {newStart, segment.end};
}

TimelineGeometry::TrimRange TimelineGeometry::trimmedRange(TrimEdge edge, double x, RationalTime trimStart,
                                                           RationalTime trimEnd, RationalTime minimumLength) const {
  const RationalTime zero = RationalTime::zero();
  const RationalTime t = clamp(timeAtX(x), zero, m_duration);
  if (edge == TrimEdge::end) {
    RationalTime newEnd = clamp(t, trimStart, m_duration);
    const RationalTime shortest = trimStart + minimumLength;
    if (newEnd < shortest) newEnd = shortest > m_duration ? m_duration : shortest;
    return {trimStart, newEnd};
  }
  RationalTime newStart = clamp(t, zero, trimEnd);
  const RationalTime latest = trimEnd - minimumLength;
  if (newStart > latest) newStart = latest < zero ? zero : latest;
  return {newStart, trimEnd};
}

std::optional<Uuid> TimelineGeometry::segmentId(RationalTime t, std::span<const SpeedSegment> segments) {
  for (const SpeedSegment& s : segments)
    if (s.start <= t && t < s.end) return s.id;
  return std::nullopt;
}

std::vector<RationalTime> TimelineGeometry::sampleTimes(int count, RationalTime duration) {
  if (count < 1) return {};
  if (count == 1 || !(duration > RationalTime::zero())) return {RationalTime::zero()};
  std::vector<RationalTime> times;
  times.reserve(static_cast<std::size_t>(count));
  std::int64_t timescale = 0;
  VANTRIX_CHECK(!__builtin_mul_overflow(duration.timescale(), std::int64_t{count}, &timescale),
                "sample timescale overflows 64 bits");
  for (int i = 0; i < count; ++i) {
    std::int64_t value = 0;
    VANTRIX_CHECK(!__builtin_mul_overflow(duration.value(), std::int64_t{i}, &value), "sample time overflows 64 bits");
    times.emplace_back(value, timescale);
  }
  return times;
}

}  // namespace vantrix
