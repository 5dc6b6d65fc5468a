#pragma once

#include "model/SpeedTimeline.h"
#include "model/TimelineGeometry.h"
#include "model/Uuid.h"
#include "views/Motion.h"

#include <QPointF>
#include <QWidget>

#include <map>
#include <optional>

namespace vantrix {

class AppModel;
class ScrubFlagView;
class SegmentOverlayView;
class SymbolButton;
class TrimHandleView;

// The timeline strip under the player: the filmstrip, one overlay per speed segment, the region
// being drawn or placed with its confirm and discard buttons, the two trim handles and the
// playhead flag with its timecode above the strip.
//
// Gestures become model commands: a click selects the segment under it or, beside every segment,
// clears the selection and seeks; a drag that moves sideways marks a region (never one that only
// moves up or down), which becomes the model's pending region on release and waits for confirm
// (added at 4x) or discard; dragging a segment's edge resizes it, a pending region's edge moves
// that mark, a trim handle trims and the flag scrubs. Every range comes from TimelineGeometry, so
// the model is only asked for edits its timeline accepts. Between gestures the view keeps no
// state of its own; everything it draws is read from the model (or from the drag in progress).
//
// The strip band starts kFlagRowHeight below the top (the flag's plate and head sit above it)
// and is TimelineGeometry::kStripHeight tall; x is the same in the widget, the strip and the
// flag's scrub space. GUI thread; the model outlives the view.
class TimelineView final : public QWidget {
  Q_OBJECT

 public:
  static constexpr double kFlagRowHeight = 24;
  // Width of the strip a filmstrip picture stands for: the view asks round(width / 80) of them.
  static constexpr double kThumbnailSlotWidth = 80;
  // Inward margin of the confirm/discard pair from the strip's ends.
  static constexpr double kPairMargin = 34;

  explicit TimelineView(AppModel& model, QWidget* parent = nullptr);
  ~TimelineView() override;

  void setReduceMotion(bool reduce);

  // The geometry for the strip's current width and the model's duration.
  TimelineGeometry geometry() const;
  // The strip band in widget coordinates.
  QRectF stripRect() const;
  // The model's timeline with the drag in progress applied (a resize, a trim or a region being
  // marked, counted as added at 4x); none without a timeline. Changes are announced by liveTimelineChanged.
  std::optional<SpeedTimeline> liveTimeline() const;
  // round(width / 80), at least 1: the filmstrip slots asked for at `width`.
  static int thumbnailCount(double width);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override;

 signals:
  void liveTimelineChanged();

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void changeEvent(QEvent* event) override;
  void showEvent(QShowEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;

 private:
  using SegmentRange = TimelineGeometry::SegmentRange;
  using TrimRange = TimelineGeometry::TrimRange;

  // Layout of the children from the model and the drag state (TimelineView.cpp).
  void sync(bool animated);
  void syncSegments(bool animated);
  void syncDraftRegions();
  void syncHandles(bool animated);
  void syncFlag(bool animated);
  void syncPair();
  void placePair();
  void raiseLayers();
  QRectF rangeRect(RationalTime start, RationalTime end) const;
  void requestThumbnails();
  void paintFilmstrip(QPainter& painter) const;
  void paintTrimShade(QPainter& painter) const;
  void paintSingleMark(QPainter& painter) const;
  SegmentOverlayView* makeSegmentOverlay(const Uuid& id);

  // Gestures (TimelineViewGestures.cpp).
  void stripDragMoved(QPointF position);
  void stripDragEnded(QPointF position);
  void segmentEdgeDragged(const Uuid& id, TimelineGeometry::Edge edge, double x, bool ended);
  void pendingEdgeDragged(TimelineGeometry::Edge edge, double x, bool ended);
  void trimDragged(TimelineGeometry::TrimEdge edge, double x, bool ended);
  void scrubbed(double x);

  AppModel& m_model;
  bool m_reduceMotion = false;

  // Drag state, alive only during its gesture.
  TimelineGeometry::DragMode m_dragMode = TimelineGeometry::DragMode::undecided;
  std::optional<QPointF> m_pressPosition;
  std::optional<SegmentRange> m_provisionalRange;
  std::optional<Uuid> m_resizingSegmentId;
  std::optional<SegmentRange> m_resizeRange;
  std::optional<TrimRange> m_liveTrim;

  // The filmstrip asked for: slot count and the load of the video it was asked for.
  std::optional<std::pair<int, Uuid>> m_thumbnailRequest;

  std::map<Uuid, SegmentOverlayView*> m_segmentOverlays;
  SegmentOverlayView* m_provisionalOverlay;
  SegmentOverlayView* m_pendingOverlay;
  TrimHandleView* m_trimStart;
  TrimHandleView* m_trimEnd;
  SymbolButton* m_confirm;
  SymbolButton* m_discard;
  // The pair follows its region on a spring; its top follows the strip directly.
  Tween m_pairCentre{0.0};
  int m_pairTop = 0;
  ScrubFlagView* m_flag;
};

}  // namespace vantrix
