#include "views/SymbolButton.h"

#include <QPainter>
#include <QPainterPath>
#include <QPainterPathStroker>

namespace vantrix {
namespace {

// The mark inside a circle of diameter d centred at the origin, as a stroke outline.
QPainterPath markPath(SymbolButton::Symbol symbol, double d) {
  QPainterPath line;
  const double r = d / 2;
  if (symbol == SymbolButton::Symbol::checkmarkCircleFill) {
    line.moveTo(-0.42 * r, 0.02 * r);
    line.lineTo(-0.1 * r, 0.36 * r);
    line.lineTo(0.45 * r, -0.34 * r);
  } else {
    const double a = 0.32 * r;
    line.moveTo(-a, -a);
    line.lineTo(a, a);
    line.moveTo(a, -a);
    line.lineTo(-a, a);
  }
  QPainterPathStroker stroker;
  stroker.setWidth(std::max(1.5, d * 0.11));
  stroker.setCapStyle(Qt::RoundCap);
  stroker.setJoinStyle(Qt::RoundJoin);
  return stroker.createStroke(line);
}

QPainterPath circlePath(double d) {
  QPainterPath circle;
  circle.addEllipse(QPointF(0, 0), d / 2, d / 2);
  return circle;
}

}  // namespace

SymbolButton::SymbolButton(Symbol symbol, double pointSize, QWidget* parent)
    : QAbstractButton(parent), m_symbol(symbol), m_pointSize(pointSize) {
  setFocusPolicy(Qt::TabFocus);
  setCursor(Qt::ArrowCursor);
}

void SymbolButton::setSymbol(Symbol symbol) {
  if (symbol == m_symbol) return;
  m_symbol = symbol;
  update();
}

void SymbolButton::setPaletteColours(std::optional<QColor> mark, std::optional<QColor> circle) {
  m_mark = mark;
  m_circle = circle;
  update();
}

void SymbolButton::setTint(std::optional<QColor> tint) {
  m_tint = tint;
  update();
}

QSize SymbolButton::sizeHint() const {
  const int side = static_cast<int>(std::ceil(m_pointSize)) + 4;
  return {side, side};
}

void SymbolButton::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  if (!isEnabled())
    painter.setOpacity(0.35);
  else if (isDown())
    painter.setOpacity(0.6);
  painter.translate(QRectF(rect()).center());
  painter.setPen(Qt::NoPen);

  const double d = m_pointSize;
  const QColor text = m_tint.value_or(palette().color(QPalette::WindowText));
  switch (m_symbol) {
    case Symbol::play: {
      QPainterPath triangle;
      triangle.moveTo(-0.3 * d, -0.4 * d);
      triangle.lineTo(0.42 * d, 0);
      triangle.lineTo(-0.3 * d, 0.4 * d);
      triangle.closeSubpath();
      painter.fillPath(triangle, text);
      return;
    }
    case Symbol::pause: {
      const double w = 0.22 * d, h = 0.8 * d, gap = 0.16 * d;
      painter.setBrush(text);
      painter.drawRoundedRect(QRectF(-gap / 2 - w, -h / 2, w, h), w * 0.2, w * 0.2);
      painter.drawRoundedRect(QRectF(gap / 2, -h / 2, w, h), w * 0.2, w * 0.2);
      return;
    }
    case Symbol::checkmarkCircleFill:
    case Symbol::xmarkCircleFill:
      break;
  }
  const QPainterPath mark = markPath(m_symbol, d);
  if (m_mark || m_circle) {
    painter.fillPath(circlePath(d).subtracted(mark), m_circle.value_or(text));
    painter.fillPath(mark, m_mark.value_or(text));
  } else {
    painter.fillPath(circlePath(d).subtracted(mark), text);
  }
}

}  // namespace vantrix
