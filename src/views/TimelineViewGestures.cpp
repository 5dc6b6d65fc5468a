// The strip's gestures: click and marking drag on the strip, segment and pending-region edges,
// trim handles and the playhead flag, each turned into model commands.

#include "views/TimelineView.h"

#include "app/AppModel.h"
#include "views/ScrubFlagView.h"

#include <QMouseEvent>

#include <algorithm>
#include <span>

namespace vantrix {
namespace {

std::span<const SpeedSegment> segmentsOf(const std::optional<SpeedTimeline>& timeline) {
  if (!timeline) return {};
  return timeline->segments();
}

}  // namespace

void TimelineView::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) {
    event->ignore();
    return;
  }
  m_pressPosition = event->position();
  m_dragMode = TimelineGeometry::DragMode::undecided;
}

void TimelineView::mouseMoveEvent(QMouseEvent* event) {
  if (m_pressPosition) stripDragMoved(event->position());
}

void TimelineView::mouseReleaseEvent(QMouseEvent* event) {
  if (!m_pressPosition || event->button() != Qt::LeftButton) return;
  // The release point is the drag's last position, whether or not a move reported it.
  stripDragMoved(event->position());
  stripDragEnded(event->position());
}

void TimelineView::stripDragMoved(QPointF position) {
  // Only sideways travel makes a drag a marking drag; once decided it stays so.
  if (m_dragMode == TimelineGeometry::DragMode::undecided && position.x() != m_pressPosition->x())
    m_dragMode = TimelineGeometry::DragMode::mark;
  if (m_dragMode != TimelineGeometry::DragMode::mark || m_model.pendingRegion()) return;

  const auto& timeline = m_model.timeline();
  const RationalTime trimStart = timeline ? timeline->trimStart() : RationalTime::zero();
  const RationalTime trimEnd = timeline ? timeline->trimEnd() : m_model.duration();
  m_provisionalRange =
      geometry().proposedRange(m_pressPosition->x(), position.x(), trimStart, trimEnd, segmentsOf(timeline));
  syncDraftRegions();
  emit liveTimelineChanged();
}

void TimelineView::stripDragEnded(QPointF position) {
  const TimelineGeometry g = geometry();
  if (m_dragMode == TimelineGeometry::DragMode::undecided) {
    const RationalTime pressed = g.timeAtX(m_pressPosition->x());
    if (const auto id = TimelineGeometry::segmentId(pressed, segmentsOf(m_model.timeline()))) {
      m_model.select(*id);
    } else {
      m_model.select(std::nullopt);
      m_model.seek(g.timeAtX(position.x()));
    }
  } else if (!m_model.pendingRegion() && m_provisionalRange && m_model.timeline()) {
    m_model.placePendingRegion(m_provisionalRange->start, m_provisionalRange->end);
  }
  m_provisionalRange.reset();
  m_pressPosition.reset();
  m_dragMode = TimelineGeometry::DragMode::undecided;
  syncDraftRegions();
  emit liveTimelineChanged();
}

void TimelineView::segmentEdgeDragged(const Uuid& id, TimelineGeometry::Edge edge, double x, bool ended) {
  const auto& timeline = m_model.timeline();
  const SpeedSegment* segment = nullptr;
  if (timeline)
    for (const SpeedSegment& s : timeline->segments())
      if (s.id == id) segment = &s;
  if (!segment) {
    m_resizingSegmentId.reset();
    m_resizeRange.reset();
    return;
  }
  const SegmentRange range =
      geometry().resizedRange(*segment, edge, x, timeline->trimStart(), timeline->trimEnd(), timeline->segments(),
                              TimelineGeometry::minimumLength(m_model.duration()));
  if (!ended) {
    m_resizingSegmentId = id;
    m_resizeRange = range;
  } else {
    m_resizingSegmentId.reset();
    m_resizeRange.reset();
    // A press on an edge that leaves the segment as it is makes no undo step.
    if (!(range.start == segment->start && range.end == segment->end))
      m_model.resizeSegment(id, range.start, range.end);
  }
  syncSegments(false);
  emit liveTimelineChanged();
}

void TimelineView::pendingEdgeDragged(TimelineGeometry::Edge edge, double x, bool ended) {
  (void)ended;  // every move already stores the mark
  const auto& timeline = m_model.timeline();
  const auto& pending = m_model.pendingRegion();
  if (!timeline || !pending || !pending->inPoint || !pending->outPoint) return;
  const RationalTime in = *pending->inPoint;
  const RationalTime out = *pending->outPoint;
  // The region as a segment of its own (the nil id is no real segment's), bounded by the trim
  // and its neighbours as a resized segment would be.
  const SpeedSegment region{Uuid(), std::min(in, out), std::max(in, out), Speed::x4};
  const SegmentRange range =
      geometry().resizedRange(region, edge, x, timeline->trimStart(), timeline->trimEnd(), timeline->segments(),
                              TimelineGeometry::minimumLength(m_model.duration()));
  const bool startEdge = edge == TimelineGeometry::Edge::start;
  const RationalTime moved = startEdge ? range.start : range.end;
  const bool movesIn = startEdge == (in <= out);
  m_model.seek(moved);
  if (movesIn)
    m_model.markIn();
  else
    m_model.markOut();
}

void TimelineView::trimDragged(TimelineGeometry::TrimEdge edge, double x, bool ended) {
  const auto& timeline = m_model.timeline();
  if (!timeline) {
    m_liveTrim.reset();
    return;
  }
  const TrimRange range = geometry().trimmedRange(edge, x, timeline->trimStart(), timeline->trimEnd(),
                                                  TimelineGeometry::minimumLength(m_model.duration()));
  if (!ended) {
    m_liveTrim = range;
  } else {
    m_liveTrim.reset();
    if (!(range.start == timeline->trimStart() && range.end == timeline->trimEnd()))
      m_model.setTrim(range.start, range.end);
  }
  syncHandles(false);
  update();
  emit liveTimelineChanged();
}

void TimelineView::scrubbed(double x) {
  m_flag->setActive(true);
  m_model.seek(geometry().timeAtX(x));
}

}  // namespace vantrix
