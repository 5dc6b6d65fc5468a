#include "model/SpeedTimeline.h"

#include <algorithm>

namespace vantrix {

std::string_view toString(SpeedTimelineError e) {
  switch (e) {
    case SpeedTimelineError::invalidRange: return "invalidRange";
    case SpeedTimelineError::overlap: return "overlap";
    case SpeedTimelineError::outsideTrim: return "outsideTrim";
    case SpeedTimelineError::invalidTrim: return "invalidTrim";
    case SpeedTimelineError::noSuchSegment: return "noSuchSegment";
  }
  return "unknown";
}

SpeedTimeline::SpeedTimeline(RationalTime sourceDuration)
    : m_sourceDuration(sourceDuration), m_trimStart(RationalTime::zero()), m_trimEnd(sourceDuration) {}

std::expected<void, SpeedTimelineError> SpeedTimeline::setTrim(RationalTime start, RationalTime end) {
  if (!(RationalTime::zero() <= start && end <= m_sourceDuration && start < end))
    return std::unexpected(SpeedTimelineError::invalidTrim);
  m_trimStart = start;
  m_trimEnd = end;
  // Clip in place, keeping order; on a tie the segment keeps its own bound (and representation).
  std::erase_if(m_segments, [&](SpeedSegment& s) {
    if (s.start < start) s.start = start;
    if (s.end > end) s.end = end;
    return !(s.start < s.end);
  });
  return {};
}

std::expected<void, SpeedTimelineError> SpeedTimeline::addSegment(RationalTime start, RationalTime end, Speed speed) {
  const auto segment = SpeedSegment::make(start, end, speed);
  if (!segment) return std::unexpected(SpeedTimelineError::invalidRange);
  return insertChecked(*segment, nullptr);
}

std::expected<void, SpeedTimelineError> SpeedTimeline::updateSegment(const Uuid& id, RationalTime start,
                                                                     RationalTime end) {
  const SpeedSegment* existing = find(id);
  if (!existing) return std::unexpected(SpeedTimelineError::noSuchSegment);
  const auto segment = SpeedSegment::make(id, start, end, existing->speed);
  if (!segment) return std::unexpected(SpeedTimelineError::invalidRange);
  return insertChecked(*segment, &id);
}

std::expected<void, SpeedTimelineError> SpeedTimeline::setSpeed(Speed speed, const Uuid& id) {
  const auto it = std::ranges::find(m_segments, id, &SpeedSegment::id);
  if (it == m_segments.end()) return std::unexpected(SpeedTimelineError::noSuchSegment);
  it->speed = speed;
  return {};
}

std::expected<void, SpeedTimelineError> SpeedTimeline::insertSegment(const SpeedSegment& segment) {
  return insertChecked(segment, nullptr);
}

void SpeedTimeline::removeSegment(const Uuid& id) {
  std::erase_if(m_segments, [&](const SpeedSegment& s) { return s.id == id; });
}

std::expected<void, SpeedTimelineError> SpeedTimeline::insertChecked(const SpeedSegment& segment,
                                                                     const Uuid* replacedId) {
  if (!(m_trimStart <= segment.start)) return std::unexpected(SpeedTimelineError::outsideTrim);
  if (!(segment.end <= m_trimEnd)) return std::unexpected(SpeedTimelineError::outsideTrim);
  for (const SpeedSegment& other : m_segments) {
    if (replacedId && other.id == *replacedId) continue;
    if (segment.start < other.end && other.start < segment.end) return std::unexpected(SpeedTimelineError::overlap);
  }
  std::erase_if(m_segments, [&](const SpeedSegment& s) { return s.id == segment.id; });
  // The list is sorted apart from the new entry: put it in place rather than re-sorting.
  const auto at = std::ranges::upper_bound(m_segments, segment.start, std::less<>{}, &SpeedSegment::start);
  m_segments.insert(at, segment);
  return {};
}

const SpeedSegment* SpeedTimeline::find(const Uuid& id) const {
  const auto it = std::ranges::find(m_segments, id, &SpeedSegment::id);
  return it == m_segments.end() ? nullptr : &*it;
}

RationalTime SpeedTimeline::outputTimeForSource(RationalTime t) const {
  RationalTime c = m_trimStart <= t ? t : m_trimStart;
  if (c > m_trimEnd) c = m_trimEnd;
  if (m_segments.empty()) return RationalTime::zero() + (c - m_trimStart);

  RationalTime out = RationalTime::zero();
  RationalTime cursor = m_trimStart;
  for (const SpeedSegment& s : m_segments) {
    const std::int64_t m = multiplier(s.speed);
    if (c <= s.start) return out + (c - cursor);
    out = out + (s.start - cursor);
    if (c <= s.end) return out + (c - s.start).dividedBy(m);
    out = out + (s.end - s.start).dividedBy(m);
    cursor = s.end;
  }
  return out + (c - cursor);
}

RationalTime SpeedTimeline::sourceTimeForOutput(RationalTime o) const {
  // One pass: an o past the output length walks past every segment and is caught by the final
  // clamp to trimEnd, which is the instant the length maps back to, so no separate length pass
  // is needed.
  const RationalTime c = o.value() < 0 ? RationalTime::zero() : o;

  RationalTime out = RationalTime::zero();
  RationalTime cursor = m_trimStart;
  for (const SpeedSegment& s : m_segments) {
    const std::int64_t m = multiplier(s.speed);
    const RationalTime gapEnd = out + (s.start - cursor);
    if (c <= gapEnd) return cursor + (c - out);
    out = gapEnd;
    const RationalTime segmentEnd = out + (s.end - s.start).dividedBy(m);
    if (c <= segmentEnd) {
      const RationalTime r = s.start + (c - out).multipliedBy(m);
      return r > s.end ? s.end : r;
    }
    out = segmentEnd;
    cursor = s.end;
  }
  const RationalTime r = cursor + (c - out);
  return r > m_trimEnd ? m_trimEnd : r;
}
}  // namespace vantrix
