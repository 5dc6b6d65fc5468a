#include "views/LoadingView.h"

#include "views/Appearance.h"
#include "views/Motion.h"

#include <QPainter>

#include <cmath>

namespace vantrix {
namespace {

constexpr int kSpokes = 12;
constexpr int kStepMs = 80;
constexpr double kRadius = 14;

}  // namespace

LoadingView::LoadingView(QWidget* parent) : QWidget(parent) {
  setAccessibleName(QStringLiteral("Opening video"));
  m_reduceMotion = Motion::reduceMotion();
  m_timer.setInterval(kStepMs);
  connect(&m_timer, &QTimer::timeout, this, [this] {
    m_step = (m_step + 1) % kSpokes;
    update();
  });
}

void LoadingView::setIndicatorVisible(bool visible) {
  if (visible == m_visible) return;
  m_visible = visible;
  updateTimer();
  update();
}

void LoadingView::setReduceMotion(bool reduce) {
  m_reduceMotion = reduce;
  updateTimer();
}

void LoadingView::updateTimer() {
  if (m_visible && !m_reduceMotion)
    m_timer.start();
  else
    m_timer.stop();
}

void LoadingView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.fillRect(rect(), palette().color(QPalette::Window));
  if (!m_visible) return;
  painter.setRenderHint(QPainter::Antialiasing);
  const QPointF centre(width() / 2.0, height() / 2.0 - 12);
  QColor ink = palette().color(QPalette::WindowText);
  for (int i = 0; i < kSpokes; ++i) {
    // The spoke at m_step is darkest; the others fade behind it.
    const int age = (m_step - i + kSpokes) % kSpokes;
    ink.setAlphaF(static_cast<float>(1.0 - 0.75 * age / kSpokes));
    painter.setPen(QPen(ink, 2.5, Qt::SolidLine, Qt::RoundCap));
    const double angle = 2 * M_PI * i / kSpokes;
    const QPointF direction(std::sin(angle), -std::cos(angle));
    painter.drawLine(centre + direction * kRadius * 0.5, centre + direction * kRadius);
  }
  painter.setPen(Appearance::secondaryText(palette()));
  painter.setFont(Appearance::bodyFont());
  painter.drawText(QRectF(0, centre.y() + kRadius + 8, width(), 24), Qt::AlignHCenter | Qt::AlignTop,
                   QStringLiteral("Opening video"));
}

}  // namespace vantrix
