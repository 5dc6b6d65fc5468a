#pragma once

#include "model/TimelineGeometry.h"
#include "views/Motion.h"

#include <QWidget>

#include <functional>
#include <optional>

namespace vantrix {

// One trim handle: a bracket in the accent colour standing at x on the strip, the grip inside the
// kept range (to the right of the start handle's x, to the left of the end handle's), over a
// clear hit area kHitWidth wide centred on x and as tall as the strip.
//
// A drag reports the handle's x when the drag began plus the pointer's horizontal travel, not the
// pointer's own position, so grabbing the handle off-centre does not make it jump. Reports go to
// onDrag on every move (the press included) and to onDragEnded on release. GUI thread; a child of
// the strip, which places it.
class TrimHandleView final : public QWidget {
  Q_OBJECT

 public:
  using TrimEdge = TimelineGeometry::TrimEdge;

  static constexpr double kHitWidth = 18;
  static constexpr double kGripWidth = 9;
  static constexpr double kBarWidth = 3;

  TrimHandleView(TrimEdge edge, QWidget* parent);

  TrimEdge edge() const { return m_edge; }
  // Stands the handle at strip x, `top` and `height` being the strip's band in the parent.
  void setPosition(double x, double top, double height, bool animated);
  double x() const { return m_x.toDouble(); }
  void setReduceMotion(bool reduce) { m_reduceMotion = reduce; }
  bool isDragging() const { return m_dragStartX.has_value(); }

  std::function<void(double x)> onDrag;
  std::function<void(double x)> onDragEnded;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;

 private:
  void place();
  double reported(const QMouseEvent* event) const;

  TrimEdge m_edge;
  Tween m_x;
  double m_top = 0;
  double m_height = TimelineGeometry::kStripHeight;
  bool m_reduceMotion = false;
  std::optional<double> m_dragStartX;        // the handle's x when the drag began
  std::optional<double> m_dragStartPointer;  // the pointer's global x then
};

}  // namespace vantrix
