#include "views/EmptyStateView.h"

#include "views/Appearance.h"

#include <QPainter>

namespace vantrix {
namespace {

constexpr double kHighlightInset = 12;
constexpr double kHighlightRadius = 12;
constexpr int kLineSpacing = 6;

}  // namespace

EmptyStateView::EmptyStateView(QWidget* parent) : QAbstractButton(parent) {
  setAccessibleName(QStringLiteral("Choose a video to open"));
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
  setCursor(Qt::PointingHandCursor);
  setFocusPolicy(Qt::StrongFocus);
}

void EmptyStateView::setDropHighlighted(bool highlighted) {
  if (highlighted == m_highlighted) return;
  m_highlighted = highlighted;
  update();
}

void EmptyStateView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.fillRect(rect(), palette().color(QPalette::Window));

  if (m_highlighted) {
    const QColor accent = Appearance::accent(palette());
    QColor wash = accent;
    wash.setAlphaF(0.12f);
    QPen dashed(accent, 2);
    dashed.setDashPattern({4, 3});
    painter.setPen(dashed);
    painter.setBrush(wash);
    painter.drawRoundedRect(
        QRectF(rect()).adjusted(kHighlightInset, kHighlightInset, -kHighlightInset, -kHighlightInset), kHighlightRadius,
        kHighlightRadius);
  }

  const QFont title = Appearance::title3Font();
  const QFont body = Appearance::bodyFont();
  const QFontMetricsF titleMetrics(title);
  const QFontMetricsF bodyMetrics(body);
  const double total = titleMetrics.height() + kLineSpacing + bodyMetrics.height();
  const double top = (height() - total) / 2;
  QColor text = palette().color(QPalette::WindowText);
  if (isDown()) text.setAlphaF(0.6f);

  painter.setPen(text);
  painter.setFont(title);
  painter.drawText(QRectF(0, top, width(), titleMetrics.height()), Qt::AlignCenter,
                   QStringLiteral("Drop a video here"));
  painter.setPen(Appearance::secondaryText(palette()));
  painter.setFont(body);
  painter.drawText(QRectF(0, top + titleMetrics.height() + kLineSpacing, width(), bodyMetrics.height()),
                   Qt::AlignCenter, QStringLiteral("or click to choose"));
}

}  // namespace vantrix
