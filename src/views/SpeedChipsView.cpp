#include "views/SpeedChipsView.h"

#include "app/AppModel.h"
#include "views/Appearance.h"
#include "views/SpeedColours.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QHBoxLayout>
#include <QPainter>

namespace vantrix {
namespace {

QColor withAlpha(QColor colour, double alpha) {
  colour.setAlphaF(static_cast<float>(alpha));
  return colour;
}

// The row is announced as one group ("Segment speed") holding its chips.
QAccessibleInterface* groupFactory(const QString& className, QObject* object) {
  if (className == QLatin1String("vantrix::SpeedChipsView") && object && object->isWidgetType())
    return new QAccessibleWidget(static_cast<QWidget*>(object), QAccessible::Grouping);
  return nullptr;
}

}  // namespace

SpeedChip::SpeedChip(Speed speed, QWidget* parent) : QAbstractButton(parent), m_speed(speed), m_current(0.0) {
  setCheckable(true);
  setText(speedLabel(speed));
  setAccessibleName(speedAccessibleName(speed));
  setFocusPolicy(Qt::TabFocus);
  setFont(Appearance::semiboldBodyFont());
  connect(&m_current, &Tween::valueChanged, this, qOverload<>(&QWidget::update));
}

void SpeedChip::setCurrent(bool current, bool animated) {
  setChecked(current);
  m_current.setTarget(current ? 1.0 : 0.0, animated);
}

void SpeedChip::setRowOpacity(double opacity) {
  m_rowOpacity = opacity;
  update();
}

QSize SpeedChip::sizeHint() const {
  const QFontMetrics metrics(font());
  const int width = std::max(kMinimumWidth, metrics.horizontalAdvance(text()) + 2 * kHorizontalPadding);
  return {width, metrics.height() + 2 * kVerticalPadding};
}

void SpeedChip::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setOpacity(m_rowOpacity * (isDown() ? 0.7 : 1.0));
  const double current = m_current.toDouble();
  const QColor colour = speedColour(m_speed, palette());
  const QRectF shape = QRectF(rect()).adjusted(kLineWidth / 2, kLineWidth / 2, -kLineWidth / 2, -kLineWidth / 2);

  painter.setBrush(withAlpha(colour, 0.9 * current));
  QPen outline(withAlpha(colour, 0.55 + 0.45 * current), kLineWidth);
  outline.setMiterLimit(10);
  painter.setPen(outline);
  painter.drawRoundedRect(shape, kCornerRadius, kCornerRadius);

  // On the filled chip the text is dark, as the speed colours are all light and warm.
  const QColor plain = palette().color(QPalette::WindowText);
  const QColor onFill(30, 20, 0);
  const auto mix = [current](float a, float b) { return a + (b - a) * static_cast<float>(current); };
  painter.setPen(QColor::fromRgbF(mix(plain.redF(), onFill.redF()), mix(plain.greenF(), onFill.greenF()),
                                  mix(plain.blueF(), onFill.blueF())));
  painter.setFont(font());
  painter.drawText(rect(), Qt::AlignCenter, text());
}

SpeedChipsView::SpeedChipsView(AppModel& model, QWidget* parent)
    : QWidget(parent), m_model(model), m_opacity(kDimmedOpacity) {
  static const bool registered = [] {
    QAccessible::installFactory(&groupFactory);
    return true;
  }();
  (void)registered;
  setAccessibleName(QStringLiteral("Segment speed"));
  m_reduceMotion = Motion::reduceMotion();

  auto* row = new QHBoxLayout(this);
  row->setContentsMargins(0, 0, 0, 0);
  row->setSpacing(8);
  for (std::size_t i = 0; i < kAllSpeeds.size(); ++i) {
    auto* chip = new SpeedChip(kAllSpeeds[i], this);
    m_chips[i] = chip;
    row->addWidget(chip);
    connect(chip, &SpeedChip::clicked, this, [this, speed = kAllSpeeds[i]] {
      if (const auto& id = m_model.selectedSegmentId()) m_model.changeSpeed(*id, speed);
      // A press never changes the chip by itself: the model's selected speed decides.
      sync(false);
    });
  }
  row->addStretch(1);
  connect(&m_opacity, &Tween::valueChanged, this, [this] {
    for (SpeedChip* chip : m_chips) chip->setRowOpacity(m_opacity.toDouble());
  });
  connect(&m_model, &AppModel::selectedSegmentIdChanged, this, [this] { sync(true); });
  connect(&m_model, &AppModel::timelineChanged, this, [this] { sync(true); });
  sync(false);
}

SpeedChip* SpeedChipsView::chip(Speed speed) const {
  for (SpeedChip* chip : m_chips)
    if (chip->speed() == speed) return chip;
  return nullptr;
}

void SpeedChipsView::sync(bool animated) {
  const bool animate = animated && !m_reduceMotion;
  const std::optional<Speed> current = m_model.selectedSpeed();
  for (SpeedChip* chip : m_chips) {
    chip->setCurrent(current == chip->speed(), animate);
    chip->setEnabled(current.has_value());
  }
  m_opacity.setTarget(current ? 1.0 : kDimmedOpacity, animate);
  for (SpeedChip* chip : m_chips) chip->setRowOpacity(m_opacity.toDouble());
}

}  // namespace vantrix
