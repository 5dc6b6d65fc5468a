#include "views/TrimHandleView.h"

#include "views/Appearance.h"

#include <QMouseEvent>
#include <QPainter>

#include <cmath>

namespace vantrix {

TrimHandleView::TrimHandleView(TrimEdge edge, QWidget* parent) : QWidget(parent), m_edge(edge), m_x(0.0) {
  setCursor(Qt::SizeHorCursor);
  setAccessibleName(edge == TrimEdge::start ? QStringLiteral("Trim start") : QStringLiteral("Trim end"));
  connect(&m_x, &Tween::valueChanged, this, &TrimHandleView::place);
}

void TrimHandleView::setPosition(double x, double top, double height, bool animated) {
  const bool bandChanged = top != m_top || height != m_height;
  m_top = top;
  m_height = height;
  m_x.setTarget(x, animated && !m_reduceMotion && !isDragging());
  if (bandChanged) place();
}

void TrimHandleView::place() {
  // The widget is the hit area; x falls on its centre line (kHitWidth / 2 in).
  setGeometry(static_cast<int>(std::lround(m_x.toDouble() - kHitWidth / 2)), static_cast<int>(std::lround(m_top)),
              static_cast<int>(kHitWidth), static_cast<int>(std::lround(m_height)));
  update();
}

double TrimHandleView::reported(const QMouseEvent* event) const {
  return *m_dragStartX + (event->globalPosition().x() - *m_dragStartPointer);
}

void TrimHandleView::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) {
    event->ignore();
    return;
  }
  m_dragStartX = m_x.target().toDouble();
  m_dragStartPointer = event->globalPosition().x();
  if (onDrag) onDrag(reported(event));
}

void TrimHandleView::mouseMoveEvent(QMouseEvent* event) {
  if (!isDragging()) return;
  if (onDrag) onDrag(reported(event));
}

void TrimHandleView::mouseReleaseEvent(QMouseEvent* event) {
  if (!isDragging()) return;
  const double x = reported(event);
  m_dragStartX.reset();
  m_dragStartPointer.reset();
  if (onDragEnded) onDragEnded(x);
}

void TrimHandleView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(Appearance::accent(palette()));
  // The exact x inside this widget (its placement is rounded to whole points).
  const double centre = m_x.toDouble() - pos().x();
  const double h = height();
  const double gripLeft = m_edge == TrimEdge::start ? centre : centre - kGripWidth;
  const double barLeft = m_edge == TrimEdge::start ? gripLeft : gripLeft + kGripWidth - kBarWidth;
  painter.drawRoundedRect(QRectF(barLeft, 0, kBarWidth, h), kBarWidth / 2, kBarWidth / 2);
  painter.drawRect(QRectF(gripLeft, 0, kGripWidth, kBarWidth));
  painter.drawRect(QRectF(gripLeft, h - kBarWidth, kGripWidth, kBarWidth));
}

}  // namespace vantrix
