#pragma once

#include "views/Motion.h"

#include <QPointer>
#include <QRectF>
#include <QString>
#include <QWidget>

#include <functional>

namespace vantrix {

// The playhead: a line down through the strip under a downward triangle head, with the timecode
// above the head on a small translucent plate. Dragging the head or the plate scrubs: every move
// (the press included) reports the pointer's x in the strip's coordinates to onScrub, so a drag
// that starts beside the line still puts the playhead under the pointer; onScrubEnded follows the
// release. The flag moves with the ease-in-out curve unless motion is reduced or it is dragged.
//
// The widget reaches over the plate, the head and the line only (a mask), so clicks elsewhere on
// the strip pass by it. GUI thread; a child of the strip, which places it.
class ScrubFlagView final : public QWidget {
  Q_OBJECT

 public:
  static constexpr double kHeadWidth = 11;
  static constexpr double kHeadHeight = 7;
  static constexpr double kLineWidth = 1.5;
  // Keeps the plate this far inside the strip's ends.
  static constexpr double kLabelMargin = 22;

  ScrubFlagView(QWidget* coordinateSpace, QWidget* parent);

  // x on the strip; the strip spans [0, stripWidth] and its band starts at stripTop (the plate
  // and the head sit above it) and is stripHeight tall.
  void setPlacement(double x, double stripTop, double stripHeight, double stripWidth, bool animated);
  double x() const { return m_x.toDouble(); }
  void setTimecode(const QString& timecode);
  QString timecode() const { return m_timecode; }
  void setActive(bool active);
  void setReduceMotion(bool reduce) { m_reduceMotion = reduce; }
  bool isScrubbing() const { return m_scrubbing; }

  // The plate's rectangle and the head's, in the parent's coordinates.
  QRectF labelRect() const;
  QRectF headRect() const;

  std::function<void(double x)> onScrub;
  std::function<void()> onScrubEnded;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;

 private:
  void place();
  double stripX(const QMouseEvent* event) const;

  QPointer<QWidget> m_space;
  Tween m_x;
  double m_stripTop = 0;
  double m_stripHeight = 0;
  double m_stripWidth = 0;
  QString m_timecode;
  bool m_active = false;
  bool m_reduceMotion = false;
  bool m_scrubbing = false;
};

}  // namespace vantrix
