#pragma once

#include "model/TimelineGeometry.h"
#include "views/Motion.h"

#include <QColor>
#include <QPointer>
#include <QRectF>
#include <QString>
#include <QWidget>

#include <functional>
#include <optional>

namespace vantrix {

class SymbolButton;

// One speed region on the timeline strip: a tinted rounded rectangle over the filmstrip with its
// speed label, an outline that tells a draft from a placed region and a selected one from the
// rest, a grab area on each edge for resizing and, on the selected region, a delete button.
//
// Owns no editing state: the strip sets its rectangle, colour and flags and receives the edge
// drags (the edge and the pointer's x in the strip's coordinates, on every move and at the end)
// and the delete press. Presses on the body are left to the strip underneath, so a click on a
// region selects it there. A provisional region (being drawn) takes no pointer input at all.
// GUI thread; a child of the strip.
class SegmentOverlayView final : public QWidget {
  Q_OBJECT

 public:
  using Edge = TimelineGeometry::Edge;

  static constexpr double kCornerRadius = 6;
  static constexpr double kEdgeGrabWidth = 12;
  static constexpr double kLabelMinimumWidth = 28;
  static constexpr double kDeleteButtonSide = 16;

  // Edge drags are reported in `coordinateSpace`'s x (the strip), not in this widget's.
  SegmentOverlayView(QWidget* coordinateSpace, QWidget* parent);

  // Where the region stands in the parent's coordinates. The widget reaches half an edge grab
  // beyond it on each side.
  void setRegionRect(const QRectF& rect, bool animated);
  QRectF regionRect() const { return m_rect.value().toRectF(); }
  void setFill(const QColor& fill);
  QColor fill() const { return m_fill; }
  void setLabel(const QString& label);
  void setProvisional(bool provisional);
  void setSelected(bool selected, bool animated);
  bool isSelected() const { return m_selected; }
  void setDraft(bool draft);
  void setReduceMotion(bool reduce) { m_reduceMotion = reduce; }

  // Whether the speed label is drawn: only on a placed region at least kLabelMinimumWidth wide.
  bool showsLabel() const;

  std::function<void(Edge, double x)> onEdgeDrag;
  std::function<void(Edge, double x)> onEdgeDragEnded;
  // Shows the delete button while the region is selected; empty hides it.
  void setOnDelete(std::function<void()> onDelete);

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;

 private:
  // The region inside this widget's own coordinates.
  QRectF localRegion() const;
  std::optional<Edge> edgeAt(double localX) const;
  double stripX(const QMouseEvent* event) const;
  void place();
  void updateDeleteButton();

  QPointer<QWidget> m_space;
  Tween m_rect;
  Tween m_outline;  // outline opacity of a placed region: 1 selected, 0.55 not
  QColor m_fill;
  QString m_label;
  bool m_provisional = false;
  bool m_selected = false;
  bool m_draft = false;
  bool m_reduceMotion = false;
  std::optional<Edge> m_dragging;
  std::function<void()> m_onDelete;
  SymbolButton* m_delete;
};

}  // namespace vantrix
