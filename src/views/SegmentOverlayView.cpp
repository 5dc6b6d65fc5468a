#include "views/SegmentOverlayView.h"

#include "views/Appearance.h"
#include "views/SymbolButton.h"

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

#include <cmath>

namespace vantrix {
namespace {

constexpr double kGrabHalf = SegmentOverlayView::kEdgeGrabWidth / 2;
// Distance of the delete button's centre below the region's top.
constexpr double kDeleteCentreY = 10;

QColor withAlpha(QColor colour, double alpha) {
  colour.setAlphaF(static_cast<float>(alpha));
  return colour;
}

}  // namespace

SegmentOverlayView::SegmentOverlayView(QWidget* coordinateSpace, QWidget* parent)
    : QWidget(parent),
      m_space(coordinateSpace),
      m_rect(QRectF()),
      m_outline(0.55),
      m_delete(new SymbolButton(SymbolButton::Symbol::xmarkCircleFill, 14, this)) {
  setMouseTracking(true);
  m_delete->setPaletteColours(QColor(Qt::white), QColor(0, 0, 0, qRound(0.45 * 255)));
  m_delete->setToolTip(QStringLiteral("Delete segment"));
  m_delete->setAccessibleName(QStringLiteral("Delete segment"));
  m_delete->setFixedSize(static_cast<int>(kDeleteButtonSide), static_cast<int>(kDeleteButtonSide));
  m_delete->hide();
  connect(m_delete, &SymbolButton::clicked, this, [this] {
    if (m_onDelete) m_onDelete();
  });
  connect(&m_rect, &Tween::valueChanged, this, &SegmentOverlayView::place);
  connect(&m_outline, &Tween::valueChanged, this, qOverload<>(&QWidget::update));
}

void SegmentOverlayView::setRegionRect(const QRectF& rect, bool animated) {
  m_rect.setTarget(rect, animated && !m_reduceMotion && !regionRect().isNull());
}

void SegmentOverlayView::setFill(const QColor& fill) {
  if (fill == m_fill) return;
  m_fill = fill;
  update();
}

void SegmentOverlayView::setLabel(const QString& label) {
  if (label == m_label) return;
  m_label = label;
  setAccessibleName(QStringLiteral("Segment %1").arg(label));
  update();
}

void SegmentOverlayView::setProvisional(bool provisional) {
  m_provisional = provisional;
  setAttribute(Qt::WA_TransparentForMouseEvents, provisional);
  update();
}

void SegmentOverlayView::setSelected(bool selected, bool animated) {
  m_selected = selected;
  m_outline.setTarget(selected ? 1.0 : 0.55, animated && !m_reduceMotion);
  updateDeleteButton();
}

void SegmentOverlayView::setDraft(bool draft) {
  m_draft = draft;
  update();
}

void SegmentOverlayView::setOnDelete(std::function<void()> onDelete) {
  m_onDelete = std::move(onDelete);
  updateDeleteButton();
}

bool SegmentOverlayView::showsLabel() const {
  return !m_provisional && !m_draft && regionRect().width() >= kLabelMinimumWidth;
}

QRectF SegmentOverlayView::localRegion() const { return regionRect().translated(-QPointF(pos())); }

void SegmentOverlayView::place() {
  const QRectF region = regionRect();
  const QRect outer(
      QPoint(static_cast<int>(std::floor(region.left() - kGrabHalf)), static_cast<int>(std::floor(region.top()))),
      QPoint(static_cast<int>(std::ceil(region.right() + kGrabHalf)) - 1,
             static_cast<int>(std::ceil(region.bottom())) - 1));
  setGeometry(outer);
  updateDeleteButton();
  update();
}

void SegmentOverlayView::updateDeleteButton() {
  const bool shows = m_selected && m_onDelete && !m_draft && !m_provisional;
  if (shows) {
    const QRectF region = localRegion();
    const double centreX = region.left() + std::max(region.width() - 16, 16.0);
    const double centreY = region.top() + kDeleteCentreY;
    m_delete->move(qRound(centreX - kDeleteButtonSide / 2), qRound(centreY - kDeleteButtonSide / 2));
    m_delete->raise();
  }
  m_delete->setVisible(shows);
}

std::optional<SegmentOverlayView::Edge> SegmentOverlayView::edgeAt(double localX) const {
  const QRectF region = localRegion();
  const double toStart = std::abs(localX - region.left());
  const double toEnd = std::abs(localX - region.right());
  if (toStart > kGrabHalf && toEnd > kGrabHalf) return std::nullopt;
  return toStart < toEnd ? Edge::start : Edge::end;
}

double SegmentOverlayView::stripX(const QMouseEvent* event) const {
  QWidget* space = m_space ? m_space.data() : parentWidget();
  return space->mapFromGlobal(event->globalPosition()).x();
}

void SegmentOverlayView::mousePressEvent(QMouseEvent* event) {
  const std::optional<Edge> edge = event->button() == Qt::LeftButton ? edgeAt(event->position().x()) : std::nullopt;
  if (!edge) {
    event->ignore();  // the body belongs to the strip's click and drag
    return;
  }
  m_dragging = edge;
  if (onEdgeDrag) onEdgeDrag(*edge, stripX(event));
}

void SegmentOverlayView::mouseMoveEvent(QMouseEvent* event) {
  if (m_dragging) {
    if (onEdgeDrag) onEdgeDrag(*m_dragging, stripX(event));
    return;
  }
  setCursor(edgeAt(event->position().x()) ? Qt::SizeHorCursor : Qt::ArrowCursor);
  event->ignore();
}

void SegmentOverlayView::mouseReleaseEvent(QMouseEvent* event) {
  if (!m_dragging) {
    event->ignore();
    return;
  }
  const Edge edge = *std::exchange(m_dragging, std::nullopt);
  if (onEdgeDragEnded) onEdgeDragEnded(edge, stripX(event));
}

void SegmentOverlayView::paintEvent(QPaintEvent*) {
  const QRectF region = localRegion();
  if (region.width() <= 0) return;
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);

  QPainterPath body;
  body.addRoundedRect(region, kCornerRadius, kCornerRadius);
  painter.fillPath(body, withAlpha(m_fill, m_draft ? 0.18 : 0.35));

  QPen outline(withAlpha(m_fill, m_draft ? 0.9 : m_outline.toDouble()), 1);
  outline.setMiterLimit(10);
  if (m_draft) outline.setDashPattern({4, 3});
  painter.setPen(outline);
  painter.setBrush(Qt::NoBrush);
  painter.drawRoundedRect(region.adjusted(0.5, 0.5, -0.5, -0.5), kCornerRadius, kCornerRadius);

  if (!showsLabel() || m_label.isEmpty()) return;
  const QFont font = Appearance::segmentLabelFont();
  const QFontMetricsF metrics(font);
  const QRectF room = region.adjusted(4, 4, -4, -4);
  QSizeF chip(metrics.horizontalAdvance(m_label) + 10, metrics.height() + 2);
  chip = chip.boundedTo(room.size());
  const QRectF chipRect(room.center() - QPointF(chip.width() / 2, chip.height() / 2), chip);
  painter.setPen(Qt::NoPen);
  painter.setBrush(QColor(0, 0, 0, qRound(0.4 * 255)));
  painter.drawRoundedRect(chipRect, 4, 4);
  painter.setFont(font);
  painter.setPen(Qt::white);
  painter.drawText(chipRect, Qt::AlignCenter, m_label);
}

}  // namespace vantrix
