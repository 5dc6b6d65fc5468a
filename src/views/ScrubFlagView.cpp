#include "views/ScrubFlagView.h"

#include "views/Appearance.h"

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QRegion>

#include <algorithm>
#include <cmath>

namespace vantrix {
namespace {

constexpr double kLabelPadding = 3;
constexpr double kLabelRadius = 3;
constexpr double kLabelGap = 1;  // between the plate and the head

QRect outward(const QRectF& r) {
  return QRect(QPoint(static_cast<int>(std::floor(r.left())), static_cast<int>(std::floor(r.top()))),
               QPoint(static_cast<int>(std::ceil(r.right())) - 1, static_cast<int>(std::ceil(r.bottom())) - 1));
}

}  // namespace

ScrubFlagView::ScrubFlagView(QWidget* coordinateSpace, QWidget* parent)
    : QWidget(parent), m_space(coordinateSpace), m_x(0.0) {
  setAccessibleName(QStringLiteral("Playhead"));
  setCursor(Qt::SizeHorCursor);
  connect(&m_x, &Tween::valueChanged, this, &ScrubFlagView::place);
}

void ScrubFlagView::setPlacement(double x, double stripTop, double stripHeight, double stripWidth, bool animated) {
  const bool bandChanged = stripTop != m_stripTop || stripHeight != m_stripHeight || stripWidth != m_stripWidth;
  m_stripTop = stripTop;
  m_stripHeight = stripHeight;
  m_stripWidth = stripWidth;
  m_x.setTarget(x, animated && !m_reduceMotion && !m_scrubbing);
  if (bandChanged) place();
}

void ScrubFlagView::setTimecode(const QString& timecode) {
  if (timecode == m_timecode) return;
  m_timecode = timecode;
  setAccessibleDescription(timecode);
  place();
}

void ScrubFlagView::setActive(bool active) {
  if (active == m_active) return;
  m_active = active;
  update();
}

QRectF ScrubFlagView::labelRect() const {
  const QFontMetricsF metrics(Appearance::captionMonospacedFont());
  const double width = metrics.horizontalAdvance(m_timecode) + 2 * kLabelPadding;
  const double height = metrics.height() + 2;
  const double half = std::max(kLabelMargin, width / 2);
  // Inside the strip's ends; on a strip too narrow for both margins, centred.
  const double centre = m_stripWidth > 2 * half ? std::clamp(x(), half, m_stripWidth - half) : m_stripWidth / 2;
  const double bottom = m_stripTop - kHeadHeight - kLabelGap;
  return {centre - width / 2, bottom - height, width, height};
}

QRectF ScrubFlagView::headRect() const {
  return {x() - kHeadWidth / 2, m_stripTop - kHeadHeight, kHeadWidth, kHeadHeight};
}

void ScrubFlagView::place() {
  const QRectF line(x() - kLineWidth, headRect().bottom(), 2 * kLineWidth, m_stripHeight);
  const QRect label = outward(labelRect());
  const QRect head = outward(headRect());
  const QRect column = outward(line);
  const QRect bounds = label.united(head).united(column);
  setGeometry(bounds);
  QRegion mask(label);
  mask += head;
  mask += column;
  setMask(mask.translated(-bounds.topLeft()));
  update();
}

double ScrubFlagView::stripX(const QMouseEvent* event) const {
  QWidget* space = m_space ? m_space.data() : parentWidget();
  return space->mapFromGlobal(event->globalPosition()).x();
}

void ScrubFlagView::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) {
    event->ignore();
    return;
  }
  m_scrubbing = true;
  if (onScrub) onScrub(stripX(event));
}

void ScrubFlagView::mouseMoveEvent(QMouseEvent* event) {
  if (m_scrubbing && onScrub) onScrub(stripX(event));
}

void ScrubFlagView::mouseReleaseEvent(QMouseEvent* event) {
  if (!m_scrubbing) return;
  if (onScrub) onScrub(stripX(event));
  m_scrubbing = false;
  if (onScrubEnded) onScrubEnded();
}

void ScrubFlagView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.translate(-QPointF(pos()));  // draw in the parent's coordinates

  const QColor ink = m_active ? Appearance::accent(palette()) : palette().color(QPalette::WindowText);
  QColor halo = palette().color(QPalette::Window);
  halo.setAlphaF(0.6f);

  const QRectF head = headRect();
  painter.fillRect(QRectF(x() - kLineWidth / 2 - 0.5, head.bottom(), kLineWidth + 1, m_stripHeight), halo);
  painter.fillRect(QRectF(x() - kLineWidth / 2, head.bottom() - 1, kLineWidth, m_stripHeight + 1), ink);

  QPainterPath triangle;
  triangle.moveTo(head.left(), head.top());
  triangle.lineTo(head.right(), head.top());
  triangle.lineTo(head.center().x(), head.bottom());
  triangle.closeSubpath();
  painter.fillPath(triangle, ink);

  const QRectF label = labelRect();
  painter.setPen(Qt::NoPen);
  painter.setBrush(Appearance::thinMaterial(palette()));
  painter.drawRoundedRect(label, kLabelRadius, kLabelRadius);
  painter.setFont(Appearance::captionMonospacedFont());
  painter.setPen(m_active ? palette().color(QPalette::WindowText) : Appearance::secondaryText(palette()));
  painter.drawText(label, Qt::AlignCenter, m_timecode);
}

}  // namespace vantrix
